#include "korvane/cluster/redis_bridge.h"

#include <hiredis/hiredis.h>

#include <stdexcept>
#include <utility>

#include "korvane/cluster/channel_sharding.h"
#include "korvane/cluster/redis_connection.h"
#include "korvane/frame/random.h"

namespace korvane::cluster {

namespace {

constexpr std::chrono::milliseconds checkTimeout{2000};

// Channels that stay with the server that received them; `path` is canonical.
bool staysLocal(const std::string& path) { return path.rfind("/meta/", 0) == 0 || path.rfind("/service/", 0) == 0; }

std::string canonicalName(const std::vector<std::string>& segments) {
    std::string name;
    for (const std::string& segment : segments) {
        name += '/';
        name += segment;
    }
    return name;
}

ShardSetting makeSetting(const RedisBridgeOptions& options, const bayeux::LocalBayeuxSession& session,
                         std::shared_ptr<bayeux::BayeuxServer> routing) {
    ShardSetting setting{common::randomString(16), options.prefix, options.bufferSize, session.getContext(),
                         std::move(routing)};
    if (!setting.inboundMark) {
        throw std::invalid_argument("The Redis bridge needs a session with a context");
    }
    if (options.shards.empty()) {
        throw std::invalid_argument("The Redis bridge needs at least one Redis instance");
    }
    return setting;
}

}  // namespace

// Offered every publish of the routing core (it declares no pattern), it hands the
// application messages of this server to their shards.
class RedisBridge::Outlet : public bayeux::BayeuxSession {
public:
    Outlet(std::shared_ptr<const Shards> shards, std::shared_ptr<Context> inboundMark, std::string id)
        : shards(std::move(shards)), inboundMark(std::move(inboundMark)), id(std::move(id)) {}

    std::shared_ptr<Context> getContext() const override { return inboundMark; }
    std::string getId() const override { return id; }
    void deliver(const std::vector<std::string>& segments,
                 const std::shared_ptr<const bayeux::PublishRequest>& message) override {
        if (message->context == inboundMark) {
            return;
        }
        std::string channel = canonicalName(segments);
        if (!staysLocal(channel)) {
            const std::size_t shard = shardOf(channel, shards->size());
            (*shards)[shard]->publish(message, std::move(channel));
        }
    }
    void deliver(const std::shared_ptr<const bayeux::SubscribeRequest>&) override {}
    void deliver(const std::shared_ptr<const bayeux::UnsubscribeRequest>&) override {}

private:
    const std::shared_ptr<const Shards> shards;
    const std::shared_ptr<Context> inboundMark;
    const std::string id;
};

// Passes each key whose holders changed to the shards that carry it.
class RedisBridge::Interest : public bayeux::InterestListener {
public:
    explicit Interest(std::shared_ptr<const Shards> shards) : shards(std::move(shards)) {}

    void interestChanged(const std::vector<std::string>& keys) override {
        for (const std::string& key : keys) {
            const std::string path = keyPath(key);
            if (staysLocal(path)) {
                continue;
            }
            if (isWildcardKey(key)) {
                for (const auto& shard : *shards) {
                    shard->noteInterest(key);
                }
            } else {
                (*shards)[shardOf(path, shards->size())]->noteInterest(key);
            }
        }
    }

    void awaitSettled(std::chrono::milliseconds limit) override {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        for (const auto& shard : *shards) {
            shard->awaitSettled(deadline);
        }
    }

private:
    const std::shared_ptr<const Shards> shards;
};

namespace {

// Throws std::invalid_argument when `shard` records a list other than `list` under `key`;
// std::runtime_error when it cannot be asked.
void expectShardList(RedisConnection& connection, const RedisEndpoint& shard, const std::string& key,
                     const std::string& list) {
    const RedisReply reply = connection.command({"GET", key});
    const std::string recorded = reply->type == REDIS_REPLY_STRING ? std::string(reply->str, reply->len) : list;
    if (recorded != list) {
        throw std::invalid_argument("the --redis list (" + list + ") differs from the one recorded in " +
                                    shard.describe() + " under " + key + " (" + recorded + ")");
    }
}

}  // namespace

void checkShardList(const RedisBridgeOptions& options) {
    const std::string key = options.prefix + "shards";
    const std::string list = shardListText(options.shards);
    // Every shard is read before any is written, so that a server refused records nothing.
    std::vector<std::pair<const RedisEndpoint*, std::unique_ptr<RedisConnection>>> reachable;
    for (const RedisEndpoint& shard : options.shards) {
        try {
            auto connection = std::make_unique<RedisConnection>(shard, checkTimeout, checkTimeout);
            expectShardList(*connection, shard, key, list);
            reachable.emplace_back(&shard, std::move(connection));
        } catch (const std::runtime_error&) {
            // Out of reach: the bridge retries it and warns.
        }
    }
    for (const auto& [shard, connection] : reachable) {
        try {
            connection->command({"SET", key, list, "NX"});
            // Another server may have recorded its list since.
            expectShardList(*connection, *shard, key, list);
        } catch (const std::runtime_error&) {
            // Lost since the read: as out of reach.
        }
    }
}

RedisBridge::RedisBridge(std::shared_ptr<bayeux::LocalBayeuxSession> session,
                         std::shared_ptr<bayeux::BayeuxServer> routing, RedisBridgeOptions options)
    : setting(makeSetting(options, *session, std::move(routing))),
      session(std::move(session)),
      shards([&] {
          auto made = std::make_shared<Shards>();
          for (RedisEndpoint& endpoint : options.shards) {
              made->push_back(std::make_shared<RedisShard>(std::move(endpoint), setting));
          }
          return made;
      }()),
      outlet(std::make_shared<Outlet>(shards, setting.inboundMark, "redis-bridge-" + setting.origin)),
      interest(std::make_shared<Interest>(shards)) {
    setting.routing->addSession(outlet);
    setting.routing->setInterestListener(interest);
    // What local sessions held before the listener was set.
    interest->interestChanged(setting.routing->heldKeys());
}

RedisBridge::~RedisBridge() {
    setting.routing->setInterestListener(nullptr);
    setting.routing->removeSession(outlet);
    for (const auto& shard : *shards) {
        shard->stop();
    }
}

bool RedisBridge::isConnected() const {
    for (const auto& shard : *shards) {
        if (!shard->isConnected()) {
            return false;
        }
    }
    return true;
}

RedisBridgeStats RedisBridge::stats() const {
    RedisBridgeStats total;
    for (const auto& shard : *shards) {
        shard->addTo(total);
    }
    return total;
}

}  // namespace korvane::cluster
