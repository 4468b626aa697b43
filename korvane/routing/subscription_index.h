#pragma once

// The sessions of one list of the routing core that declare their patterns, indexed by
// pattern: exact channels, "/a/*" and "/a/**" each in a hash map keyed by the pattern's
// path. A publish asks only the buckets that its channel can match: the exact one, the
// "/*" one of its parent and the "/**" one of every proper prefix. What it then offers
// is a superset of what the sessions' own Channels match; each session still decides.
//
// A bucket keeps its members in chunks of at most `chunkCapacity`. A chunk is never
// changed once stored: every change copies the one or two chunks it touches, so a
// change costs the same in a bucket of ten and in one of a hundred thousand, and a
// reader that copied a bucket's chunk pointers walks them with no lock held while the
// bucket changes under it.
//
// Threading: no lock of its own; the owner serializes every call. The chunks that
// collect hands out may be read on any thread afterwards. Nothing here calls into a
// session: members hold sessions weakly and are only copied.

#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "korvane/codec/routing_interfaces.h"
#include "korvane/export.h"

namespace korvane::bayeux {

// The canonical text of a pattern: its segments joined by '/', empty ones dropped, so
// that spellings that a Channel treats alike ("/a//b/*" and "/a/b/*") share the key "a/b/*".
KORVANE_EXPORT std::string patternKey(const std::string& pattern);

class KORVANE_EXPORT SubscriptionIndex {
public:
    // One session in one bucket. `identity` is the session's address, the bucket's key for
    // it; `copies` is how often the session is to be offered each message.
    struct Member {
        std::weak_ptr<BayeuxSession> session;
        const BayeuxSession* identity = nullptr;
        unsigned copies = 0;
    };
    using Chunk = std::vector<Member>;
    // The chunks of the buckets that one channel matched, and how many buckets those were:
    // a session is in a bucket at most once, but may be in several of them.
    struct Snapshot {
        std::vector<std::shared_ptr<const Chunk>> chunks;
        std::size_t buckets = 0;
    };

    SubscriptionIndex();
    ~SubscriptionIndex();

    // Puts the member into the bucket of `key` (from patternKey), or replaces it there.
    void put(const std::string& key, const Member& member);
    // Takes the session out of the bucket of `key`; nothing if it is not there.
    void remove(const std::string& key, const BayeuxSession* identity);
    // Whether the bucket of `key` has a member.
    bool holds(const std::string& key) const;
    // The keys of every bucket that has a member.
    void appendKeys(std::vector<std::string>& keys) const;
    // The paths that a channel's lookups use: the first k segments joined, for k from 0 to
    // all of them. Made once per publish, before any lock is taken.
    static std::vector<std::string> pathsOf(const std::vector<std::string>& segments);
    // Adds the chunks of every bucket whose pattern can match the channel of `paths` (from pathsOf).
    void collect(const std::vector<std::string>& paths, Snapshot& snapshot) const;
    // The patterns that at least one session holds.
    std::size_t patternCount() const { return exact.size() + singleWildcard.size() + deepWildcard.size(); }

private:
    class Bucket {
    public:
        void put(const Member& member);
        void remove(const BayeuxSession* identity);
        bool empty() const noexcept { return positions.empty(); }
        void appendTo(std::vector<std::shared_ptr<const Chunk>>& out) const;

    private:
        // Replaces the member at `position` by a copy-on-write of its chunk.
        void store(std::size_t position, const Member& member);
        void pushBack(const Member& member);
        void popBack();

        std::vector<std::shared_ptr<const Chunk>> chunks;  // every chunk but the last is full
        std::unordered_map<const BayeuxSession*, std::size_t> positions;
    };
    using BucketMap = std::unordered_map<std::string, Bucket>;

    // The map for the kind of `key`, and the pattern's path in it.
    BucketMap& mapFor(const std::string& key, std::string& path);
    const BucketMap& mapFor(const std::string& key, std::string& path) const;
    static void collectFrom(const BucketMap& map, const std::string& path, Snapshot& snapshot);

    BucketMap exact;
    BucketMap singleWildcard;  // "<path>/*": one more segment
    BucketMap deepWildcard;    // "<path>/**": one or more segments
};

}  // namespace korvane::bayeux
