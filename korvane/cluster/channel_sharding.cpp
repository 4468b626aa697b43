#include "korvane/cluster/channel_sharding.h"

namespace korvane::cluster {

namespace {

std::uint64_t fnv1a(const std::string& text) {
    std::uint64_t hash = 14695981039346656037ull;
    for (const unsigned char c : text) {
        hash = (hash ^ c) * 1099511628211ull;
    }
    return hash;
}

// Lamping and Veach's jump consistent hash.
std::size_t jumpHash(std::uint64_t key, std::size_t buckets) {
    std::int64_t chosen = -1;
    std::int64_t next = 0;
    while (next < static_cast<std::int64_t>(buckets)) {
        chosen = next;
        key = key * 2862933555777941757ull + 1;
        next = static_cast<std::int64_t>(static_cast<double>(chosen + 1) *
                                         (static_cast<double>(1ll << 31) / static_cast<double>((key >> 33) + 1)));
    }
    return static_cast<std::size_t>(chosen);
}

// The key's last segment, after its last '/' (all of it when there is none).
std::string lastSegment(const std::string& key) { return key.substr(key.rfind('/') + 1); }

}  // namespace

std::size_t shardOf(const std::string& channel, std::size_t shards) {
    return shards <= 1 ? 0 : jumpHash(fnv1a(channel), shards);
}

bool isWildcardKey(const std::string& key) {
    const std::string last = lastSegment(key);
    return last == "*" || last == "**";
}

std::string keyPath(const std::string& key) {
    if (!isWildcardKey(key)) {
        return "/" + key;
    }
    const std::size_t slash = key.rfind('/');
    return slash == std::string::npos ? "/" : "/" + key.substr(0, slash + 1);
}

std::string redisGlob(const std::string& literal) {
    std::string pattern;
    for (const char c : literal) {
        if (c == '*' || c == '?' || c == '[' || c == ']' || c == '\\') {
            pattern.push_back('\\');
        }
        pattern.push_back(c);
    }
    pattern.push_back('*');
    return pattern;
}

std::string shardListText(const std::vector<RedisEndpoint>& shards) {
    std::string text;
    for (const RedisEndpoint& shard : shards) {
        text += (text.empty() ? "" : " ") + shard.describe();
    }
    return text;
}

}  // namespace korvane::cluster
