#pragma once

// One Redis instance of the cluster: it carries the channels that hash to it
// (channel_sharding.h) and every wildcard pattern a local session holds.
//
// Outgoing, publish() pushes a message onto a bounded queue (when it is full new
// messages are dropped and counted) and a publishing thread that owns one connection
// PUBLISHes it as a frame (cluster_frame.h) on `prefix` + its channel.
//
// Incoming, a subscriber thread owns the other connection. noteInterest() marks a
// pattern key whose holders changed and wakes it; it asks the routing core whether the
// key is still held and SUBSCRIBEs (exact channels) or PSUBSCRIBEs (wildcards, by the
// Redis glob of their literal part, which also matches deeper channels: the routing
// core filters again) in one command per kind for everything that changed since its
// last look. A channel several of its subscriptions match comes once per subscription;
// the subscriber keeps the subscriptions Redis confirmed, in the order of its replies,
// and delivers only the copy of the exact subscription, else of the shortest glob. A
// PING every second measures how far behind Redis the subscriber reads (`lagMicros`);
// another after each batch tells awaitSettled, once answered, that Redis has the batch.
// Frames from this server's own origin are ignored; the others go to the routing core
// under the publisher's clientId with the inbound context.
//
// Either thread reconnects on its own after a failure, waiting 100 ms, then twice as
// long each time up to 5 s; the subscriber subscribes to everything again. Warnings
// (level 256 on "korvane::cluster") come at most once every ten seconds per shard.
//
// Threads: publish, noteInterest, awaitSettled and addTo may be called from any thread; `pending`
// guards the keys waiting for the subscriber. stop() (once, not from the shard's own
// threads) ends and joins both threads, as the destructor does when stop() was not
// called; the shard may outlive stop(), refusing messages.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "korvane/cluster/bounded_queue.h"
#include "korvane/cluster/redis_endpoint.h"
#include "korvane/codec/messages.h"
#include "korvane/codec/routing_interfaces.h"
#include "korvane/frame/warning_throttle.h"

struct redisReply;

namespace korvane::cluster {

class RedisConnection;

// The bridge's counters, summed over its shards.
struct RedisBridgeStats {
    std::size_t shardsUp = 0;
    std::size_t shards = 0;
    std::uint64_t messagesOut = 0;  // frames PUBLISHed
    std::uint64_t messagesIn = 0;   // frames received, copies of one publish counted each
    std::uint64_t dropped = 0;      // messages a full buffer refused
    std::uint64_t reconnects = 0;   // connections made again after one failed
    std::uint64_t lagMicros = 0;    // the last probe's round trip on the slowest shard
};

// What every shard of one bridge shares.
struct ShardSetting {
    std::string origin;
    std::string prefix;
    std::size_t bufferSize = 0;
    std::shared_ptr<Context> inboundMark;
    std::shared_ptr<bayeux::BayeuxServer> routing;
};

class RedisShard {
public:
    using Delivery = std::shared_ptr<const bayeux::PublishRequest>;

    RedisShard(RedisEndpoint endpoint, const ShardSetting& setting);
    ~RedisShard();
    RedisShard(const RedisShard&) = delete;
    RedisShard& operator=(const RedisShard&) = delete;

    // `channel` is the message's canonical name ("/a/b"). Never waits for Redis.
    void publish(Delivery message, std::string channel);
    void noteInterest(const std::string& key);
    // Returns once Redis has every change noted before the call, once this shard is not
    // connected, or at `deadline`.
    void awaitSettled(std::chrono::steady_clock::time_point deadline);
    void stop();

    bool isConnected() const { return connected.load(std::memory_order_relaxed); }
    void addTo(RedisBridgeStats& stats);

private:
    struct Outgoing {
        Delivery message;
        std::string channel;
    };
    // What one look at the pending keys changed, as Redis commands.
    struct Changes {
        std::vector<std::string> subscribe, unsubscribe, psubscribe, punsubscribe;
        std::uint64_t covers = 0;  // the count of notes taken into account
    };

    void runPublisher();
    void runSubscriber();
    void listen(RedisConnection& connection);
    Changes takeInterest();
    void resubscribeAll(RedisConnection& connection);
    static void sendAll(RedisConnection& connection, const char* command, const std::vector<std::string>& names);
    void handle(const redisReply& reply);
    bool isFirstCopy(const std::string& glob, const std::string& channel) const;
    void probe(RedisConnection& connection, std::chrono::steady_clock::time_point now);
    // A PING whose answer, after everything sent before it, tells awaitSettled that Redis has `changes`.
    static void sendSettleMark(RedisConnection& connection, const Changes& changes);
    void markSettled(std::uint64_t covered);
    void setConnected(bool up);
    // The argument of a PING that Redis answered: a settle mark or a lag probe.
    void answered(const std::string& ping);
    // `probeSent`: the probe's send time, in microseconds of the steady clock.
    void measureLag(const std::string& probeSent);
    void injectFrame(std::string_view frame);
    void warn(const std::string& what);
    std::shared_ptr<RedisConnection> connect(std::shared_ptr<RedisConnection>& slot, std::chrono::milliseconds ioTimeout);
    void release(std::shared_ptr<RedisConnection>& slot);
    bool pause(std::chrono::milliseconds wait);
    bool isStopping();
    // Single-writer counters: a relaxed load and store, no read-modify-write.
    static void bump(std::atomic<std::uint64_t>& counter) {
        counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }

    const RedisEndpoint endpoint;
    const ShardSetting setting;
    BoundedQueue<Outgoing> queue;
    common::WarningThrottle throttle;

    // Guards `pendingKeys` and the note counts; `wake` (an eventfd) tells the subscriber,
    // `dirty` saves it a lock per message; `settledChanged` wakes awaitSettled.
    std::mutex pending;
    std::vector<std::string> pendingKeys;
    std::uint64_t notesRequested = 0;
    std::uint64_t notesSettled = 0;
    std::condition_variable settledChanged;
    std::atomic<bool> dirty{false};
    const int wake;

    // The subscriber thread's own: the keys it holds in Redis, the names they need there,
    // and what Redis confirmed on the current connection.
    std::unordered_set<std::string> heldKeys;
    std::unordered_set<std::string> channels;
    std::unordered_map<std::string, unsigned> globs;
    std::unordered_set<std::string> confirmedChannels;
    std::unordered_set<std::string> confirmedGlobs;
    std::chrono::steady_clock::time_point lastProbe;

    // Guards `stopping` and the two connection slots, which stop() interrupts.
    std::mutex mutex;
    std::condition_variable stopped;
    bool stopping = false;
    std::shared_ptr<RedisConnection> publishing;
    std::shared_ptr<RedisConnection> subscribed;

    std::atomic<bool> connected{false};
    std::atomic<std::uint64_t> messagesOut{0};
    std::atomic<std::uint64_t> messagesIn{0};
    std::atomic<std::uint64_t> reconnects{0};
    std::atomic<std::uint64_t> lagMicros{0};

    std::thread publisherThread;
    std::thread subscriberThread;
};

}  // namespace korvane::cluster
