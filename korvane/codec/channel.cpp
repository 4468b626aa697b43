#include "korvane/codec/channel.h"

#include <limits>
#include <stdexcept>

#include "korvane/frame/spare_buckets.h"

namespace korvane::bayeux {

namespace {

constexpr std::size_t typicalSegmentCount = 10;

// Which count of its last node a pattern raises.
enum class PatternEnd { Exact, SingleWildcard, DeepWildcard };

struct ParsedPattern {
    std::vector<std::string> segments;
    // How many segments name nodes: all but a trailing wildcard.
    std::size_t nodeDepth;
    PatternEnd end;
};

ParsedPattern parsePattern(const std::string& pattern) {
    ParsedPattern parsed{splitChannel(pattern), 0, PatternEnd::Exact};
    parsed.nodeDepth = parsed.segments.size();
    if (!parsed.segments.empty()) {
        const std::string& last = parsed.segments.back();
        if (last == "*") {
            parsed.end = PatternEnd::SingleWildcard;
            --parsed.nodeDepth;
        } else if (last == "**") {
            parsed.end = PatternEnd::DeepWildcard;
            --parsed.nodeDepth;
        }
    }
    return parsed;
}

std::uint16_t& countFor(Channel& node, PatternEnd end) {
    switch (end) {
        case PatternEnd::SingleWildcard:
            return node.singleWildcardCount;
        case PatternEnd::DeepWildcard:
            return node.deepWildcardCount;
        default:
            return node.exactCount;
    }
}

}  // namespace

std::vector<std::string> splitChannel(const std::string& channel) {
    std::vector<std::string> segments;
    segments.reserve(typicalSegmentCount);
    std::size_t start = 0;
    while (start <= channel.size()) {
        std::size_t slash = channel.find('/', start);
        if (slash == std::string::npos) {
            slash = channel.size();
        }
        if (slash > start) {
            segments.emplace_back(channel, start, slash - start);
        }
        start = slash + 1;
    }
    return segments;
}

Channel::Channel() = default;
Channel::Channel(Channel&&) noexcept = default;
Channel& Channel::operator=(Channel&&) noexcept = default;
Channel::~Channel() = default;

void Channel::pushPattern(const std::string& pattern) {
    const ParsedPattern parsed = parsePattern(pattern);
    Channel* node = this;
    for (std::size_t depth = 0; depth < parsed.nodeDepth; ++depth) {
        node = &node->childFor(parsed.segments[depth]);
    }
    // A full count belongs to a node that already existed, so a refusal leaves no new node behind.
    std::uint16_t& count = countFor(*node, parsed.end);
    if (count == std::numeric_limits<std::uint16_t>::max()) {
        throw std::runtime_error("Too many subscriptions to one pattern.");
    }
    ++count;
}

bool Channel::popPattern(const std::string& pattern) {
    const ParsedPattern parsed = parsePattern(pattern);
    // The nodes along the pattern's path, root first, so that emptied ones can be pruned bottom-up.
    std::vector<Channel*> path;
    path.reserve(parsed.nodeDepth + 1);
    path.push_back(this);
    for (std::size_t depth = 0; depth < parsed.nodeDepth; ++depth) {
        auto child = path.back()->children.find(parsed.segments[depth]);
        if (child == path.back()->children.end()) {
            return false;
        }
        path.push_back(child->second.get());
    }
    std::uint16_t& count = countFor(*path.back(), parsed.end);
    if (count == 0) {
        return false;
    }
    --count;
    for (std::size_t depth = parsed.nodeDepth; depth > 0 && path[depth]->isEmpty(); --depth) {
        path[depth - 1]->children.erase(parsed.segments[depth - 1]);
    }
    return true;
}

bool Channel::channelMatches(const std::vector<std::string>& segments) const {
    const Channel* node = this;
    const std::size_t total = segments.size();
    for (std::size_t depth = 0;; ++depth) {
        const std::size_t remaining = total - depth;
        if (remaining == 0) {
            return node->exactCount > 0;
        }
        if (node->deepWildcardCount > 0 || (remaining == 1 && node->singleWildcardCount > 0)) {
            return true;
        }
        auto child = node->children.find(segments[depth]);
        if (child == node->children.end()) {
            return false;
        }
        node = child->second.get();
    }
}

Channel& Channel::childFor(const std::string& segment) {
    auto child = children.find(segment);
    if (child == children.end()) {
        common::startSmall(children);
        child = children.emplace(segment, std::make_unique<Channel>()).first;
    }
    return *child->second;
}

bool Channel::isEmpty() const noexcept {
    return exactCount == 0 && singleWildcardCount == 0 && deepWildcardCount == 0 && children.empty();
}

}  // namespace korvane::bayeux
