#pragma once

// Shares the application channels of several servers through one or more Redis
// instances (the shards, redis_shard.h).
//
// Outgoing, an outlet session that the routing core offers every publish passes each
// application message published here (not /meta/** and not /service/**, which belong
// to the server that received them) to the shard its channel hashes to
// (channel_sharding.h). Incoming, the bridge listens to the routing core's interest:
// each pattern key that gains its first or loses its last local holder goes to the
// shard of its channel, or to every shard for a wildcard, which subscribes or
// unsubscribes in Redis in batches. The server thus receives only what its own
// sessions hold. A message that came in carries the context of `session` (which must
// have one: the constructor throws std::invalid_argument otherwise), so that the
// outlet does not send it back out. Frames that carry this bridge's origin id (random
// per bridge) are ignored.
//
// A client's subscribe is answered once Redis has the subscription it needs (the
// protocol service waits on awaitSettled, 100 ms at most, and not at all while a shard
// is away), so that a message published elsewhere after the client has its reply
// reaches it. The wait is one round trip to Redis, shared by every subscribe whose
// change went out in the same batch. A host that needs the same for an in-process
// session calls BayeuxServer::awaitInterestSettled after subscribing it.
//
// Threads: the constructor and destructor on the embedding host's thread (the
// destructor must not run on one of the server's callbacks: it joins the shards'
// threads). The outlet and the interest listener run on whichever thread publishes or
// subscribes and take no lock of the bridge; none waits for Redis but awaitSettled, which
// the protocol service calls after a subscribe. isConnected and stats may be called from
// any thread.

#include <memory>
#include <string>
#include <vector>

#include "korvane/cluster/redis_endpoint.h"
#include "korvane/cluster/redis_shard.h"
#include "korvane/codec/routing_interfaces.h"
#include "korvane/session/local_session.h"

namespace korvane::cluster {

struct RedisBridgeOptions {
    // In the same order on every server: a channel's shard is its place in this list.
    std::vector<RedisEndpoint> shards;
    std::string prefix = "korvane:";
    // Per shard.
    std::size_t bufferSize = 10000;
};

// Records the shard list under `prefix` + "shards" in every shard that has none yet, once
// no shard recorded another.
// Throws std::invalid_argument, naming the shard and both lists, when one recorded
// another list. Shards that cannot be reached are left for the bridge to retry.
void checkShardList(const RedisBridgeOptions& options);

class RedisBridge {
public:
    RedisBridge(std::shared_ptr<bayeux::LocalBayeuxSession> session, std::shared_ptr<bayeux::BayeuxServer> routing,
                RedisBridgeOptions options);
    ~RedisBridge();
    RedisBridge(const RedisBridge&) = delete;
    RedisBridge& operator=(const RedisBridge&) = delete;

    const std::string& originId() const { return setting.origin; }
    // True while every shard's subscriber is connected, so that the bridge hears the other servers.
    bool isConnected() const;
    RedisBridgeStats stats() const;

private:
    class Outlet;
    class Interest;
    using Shards = std::vector<std::shared_ptr<RedisShard>>;

    const ShardSetting setting;
    // Owns the context that marks the messages that came in.
    const std::shared_ptr<bayeux::LocalBayeuxSession> session;
    // Shared with the outlet and the listener, which may outlive a call into the bridge.
    const std::shared_ptr<const Shards> shards;
    std::shared_ptr<Outlet> outlet;
    std::shared_ptr<Interest> interest;
};

}  // namespace korvane::cluster
