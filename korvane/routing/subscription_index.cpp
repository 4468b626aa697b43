#include "korvane/routing/subscription_index.h"

#include <utility>

#include "korvane/codec/channel.h"
#include "korvane/frame/spare_buckets.h"

namespace korvane::bayeux {

namespace {

constexpr std::size_t chunkCapacity = 32;

// A key's path with its last segment `wildcard` ("*" or "**") cut off; false if the key
// does not end in that segment.
bool cutWildcard(const std::string& key, const std::string& wildcard, std::string& path) {
    if (key == wildcard) {
        path.clear();
        return true;
    }
    const std::string suffix = "/" + wildcard;
    if (key.size() > suffix.size() && key.compare(key.size() - suffix.size(), suffix.size(), suffix) == 0) {
        path.assign(key, 0, key.size() - suffix.size());
        return true;
    }
    return false;
}

}  // namespace

std::string patternKey(const std::string& pattern) {
    std::string key;
    key.reserve(pattern.size());
    for (const std::string& segment : splitChannel(pattern)) {
        if (!key.empty()) {
            key += '/';
        }
        key += segment;
    }
    return key;
}

SubscriptionIndex::SubscriptionIndex() = default;
SubscriptionIndex::~SubscriptionIndex() = default;

void SubscriptionIndex::put(const std::string& key, const Member& member) {
    std::string path;
    mapFor(key, path)[path].put(member);
}

void SubscriptionIndex::remove(const std::string& key, const BayeuxSession* identity) {
    std::string path;
    BucketMap& map = mapFor(key, path);
    auto bucket = map.find(path);
    if (bucket == map.end()) {
        return;
    }
    bucket->second.remove(identity);
    if (bucket->second.empty()) {
        map.erase(bucket);
        common::releaseSpareBuckets(map);
    }
}

std::vector<std::string> SubscriptionIndex::pathsOf(const std::vector<std::string>& segments) {
    std::vector<std::string> paths(1);
    paths.reserve(segments.size() + 1);
    for (const std::string& segment : segments) {
        std::string path = paths.back();
        if (!path.empty()) {
            path += '/';
        }
        path += segment;
        paths.push_back(std::move(path));
    }
    return paths;
}

void SubscriptionIndex::collect(const std::vector<std::string>& paths, Snapshot& snapshot) const {
    if (exact.empty() && singleWildcard.empty() && deepWildcard.empty()) {
        return;
    }
    // paths[k] is the channel's first k segments: "/**" there matches while a segment is left,
    // "/*" only with exactly one left, and the exact pattern only the whole channel.
    const std::size_t total = paths.size() - 1;
    for (std::size_t depth = 0; depth < total; ++depth) {
        collectFrom(deepWildcard, paths[depth], snapshot);
    }
    if (total > 0) {
        collectFrom(singleWildcard, paths[total - 1], snapshot);
    }
    collectFrom(exact, paths[total], snapshot);
}

bool SubscriptionIndex::holds(const std::string& key) const {
    std::string path;
    return mapFor(key, path).count(path) != 0;
}

void SubscriptionIndex::appendKeys(std::vector<std::string>& keys) const {
    for (const auto& [map, wildcard] : {std::pair(&exact, ""), std::pair(&singleWildcard, "*"),
                                        std::pair(&deepWildcard, "**")}) {
        for (const auto& bucket : *map) {
            const std::string& path = bucket.first;
            keys.push_back(*wildcard == '\0' ? path : path.empty() ? wildcard : path + "/" + wildcard);
        }
    }
}

SubscriptionIndex::BucketMap& SubscriptionIndex::mapFor(const std::string& key, std::string& path) {
    return const_cast<BucketMap&>(std::as_const(*this).mapFor(key, path));
}

const SubscriptionIndex::BucketMap& SubscriptionIndex::mapFor(const std::string& key, std::string& path) const {
    if (cutWildcard(key, "**", path)) {
        return deepWildcard;
    }
    if (cutWildcard(key, "*", path)) {
        return singleWildcard;
    }
    path = key;
    return exact;
}

void SubscriptionIndex::collectFrom(const BucketMap& map, const std::string& path, Snapshot& snapshot) {
    if (map.empty()) {
        return;
    }
    auto bucket = map.find(path);
    if (bucket != map.end()) {
        bucket->second.appendTo(snapshot.chunks);
        ++snapshot.buckets;
    }
}

void SubscriptionIndex::Bucket::put(const Member& member) {
    auto found = positions.find(member.identity);
    if (found != positions.end()) {
        store(found->second, member);
        return;
    }
    positions.emplace(member.identity, positions.size());
    pushBack(member);
}

void SubscriptionIndex::Bucket::remove(const BayeuxSession* identity) {
    auto found = positions.find(identity);
    if (found == positions.end()) {
        return;
    }
    // The last member moves into the hole, so that only the two chunks involved are copied.
    const std::size_t hole = found->second;
    const std::size_t last = positions.size() - 1;
    positions.erase(found);
    common::releaseSpareBuckets(positions);
    if (hole != last) {
        const Member& moved = (*chunks.back())[last % chunkCapacity];
        positions[moved.identity] = hole;
        store(hole, moved);
    }
    popBack();
}

void SubscriptionIndex::Bucket::appendTo(std::vector<std::shared_ptr<const Chunk>>& out) const {
    out.insert(out.end(), chunks.begin(), chunks.end());
}

void SubscriptionIndex::Bucket::store(std::size_t position, const Member& member) {
    std::shared_ptr<const Chunk>& chunk = chunks[position / chunkCapacity];
    auto copy = std::make_shared<Chunk>(*chunk);
    (*copy)[position % chunkCapacity] = member;
    chunk = std::move(copy);
}

// A stored chunk never grows in place, so each copy holds exactly its members: room for
// a whole chunk in every bucket would cost a channel with one subscriber 1 KB.
void SubscriptionIndex::Bucket::pushBack(const Member& member) {
    if (chunks.empty() || chunks.back()->size() == chunkCapacity) {
        chunks.push_back(std::make_shared<const Chunk>(1, member));
        return;
    }
    const Chunk& last = *chunks.back();
    auto copy = std::make_shared<Chunk>();
    copy->reserve(last.size() + 1);
    copy->insert(copy->end(), last.begin(), last.end());
    copy->push_back(member);
    chunks.back() = std::move(copy);
}

void SubscriptionIndex::Bucket::popBack() {
    if (chunks.back()->size() == 1) {
        chunks.pop_back();
        return;
    }
    auto copy = std::make_shared<Chunk>(chunks.back()->begin(), chunks.back()->end() - 1);
    chunks.back() = std::move(copy);
}

}  // namespace korvane::bayeux
