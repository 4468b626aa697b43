#pragma once

// A set of subscription patterns, kept as a tree with one node per path segment.
// A Channel object is one node; the root stands for the empty path. A pattern may
// be held several times, so every node counts how often each pattern ending at it
// is held:
//   exactCount           the node's own path, e.g. "/a/b"
//   singleWildcardCount  the node's path followed by "/*"  (exactly one more segment)
//   deepWildcardCount    the node's path followed by "/**" (one or more segments)
//
// A wildcard that is not a whole final segment ("/a*", "/*/b") is an ordinary
// literal segment: it matches only a channel segment spelled the same way.
// popPattern prunes nodes that hold nothing any more.
//
// Threading: no locking of its own; the owner serializes every access.

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "korvane/export.h"

namespace korvane::bayeux {

// The segments of a channel or pattern: the texts between '/' characters, in
// order, empty ones dropped ("/a//b" gives {"a", "b"}).
KORVANE_EXPORT std::vector<std::string> splitChannel(const std::string& channel);

class KORVANE_EXPORT Channel {
public:
    Channel();
    Channel(Channel&&) noexcept;
    Channel& operator=(Channel&&) noexcept;
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;
    ~Channel();

    // Adds one hold of `pattern`. Throws std::runtime_error when the count that
    // fits the pattern's end is already at its 16-bit maximum.
    void pushPattern(const std::string& pattern);
    // Drops one hold of `pattern`; false, with no change, if it is not held.
    bool popPattern(const std::string& pattern);
    // True if any held pattern matches the channel given as its segments.
    bool channelMatches(const std::vector<std::string>& segments) const;

    std::unordered_map<std::string, std::unique_ptr<Channel>> children;
    std::uint16_t singleWildcardCount = 0;
    std::uint16_t deepWildcardCount = 0;
    std::uint16_t exactCount = 0;

private:
    // The child for `segment`, made if missing.
    Channel& childFor(const std::string& segment);
    bool isEmpty() const noexcept;
};

}  // namespace korvane::bayeux
