#pragma once

// How the cluster spreads its channels over several Redis instances, and how a
// server's interests are spelled in Redis. Every server must compute the same: the
// hash is FNV-1a (64 bits) of the channel's canonical name ("/a/b"), mapped to a
// shard by jump consistent hashing, so that adding a last shard moves only the
// channels that land on it.
//
// Plain functions on values: any thread.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "korvane/cluster/redis_endpoint.h"

namespace korvane::cluster {

// The shard, below `shards`, of the channel with canonical name `channel`.
std::size_t shardOf(const std::string& channel, std::size_t shards);

// Whether the pattern key (see patternKey) ends in a wildcard segment.
bool isWildcardKey(const std::string& key);
// The canonical channel name of an exact key, or the literal part of a wildcard
// key's pattern ending in '/': "a/b" -> "/a/b", "a/*" and "a/**" -> "/a/", "**" -> "/".
std::string keyPath(const std::string& key);
// `literal` taken literally in a Redis PSUBSCRIBE pattern, followed by *.
std::string redisGlob(const std::string& literal);

// The text every shard keeps under `prefix` + "shards": the shards in their order.
std::string shardListText(const std::vector<RedisEndpoint>& shards);

}  // namespace korvane::cluster
