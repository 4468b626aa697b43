#pragma once

// Shares the application channels of several servers through Redis pub/sub.
//
// The bridge owns an in-process session of this server, subscribed to /**. Every
// application message published here (not /meta/** and not /service/**, which
// belong to the server that received them) is framed (cluster_frame.h) and
// PUBLISHed on the Redis channel `prefix` + its Bayeux channel. The bridge
// PSUBSCRIBEs to `prefix`* and hands every frame of another server to this server's
// routing core, under the publisher's own clientId and with the bridge session's
// context; that context marks the message as one that came in, so the bridge's own
// subscription lets it pass instead of sending it back out. The session must
// therefore have a context (the constructor throws std::invalid_argument otherwise)
// and be registered with `routing`. Frames that carry this bridge's origin id
// (random per bridge) are ignored.
//
// Threads: publishers only push onto a bounded queue (capacity `bufferSize`; when
// it is full new messages are dropped and counted), so a slow or absent Redis never
// holds them up. A publishing thread owns one connection and drains the queue; a
// subscriber thread owns the other and delivers into the routing core. Either
// reconnects on its own after a failure, waiting 100 ms, then twice as long each
// time up to 5 s; the subscriber subscribes again. Warnings (level 256 on
// "korvane::cluster") come at most once every ten seconds. SIGPIPE is blocked on
// both threads, which write to sockets Redis may have closed. The destructor stops
// both threads and joins them; it must not run on one of the server's callbacks.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "korvane/cluster/redis_endpoint.h"
#include "korvane/codec/messages.h"
#include "korvane/codec/routing_interfaces.h"
#include "korvane/frame/reactive_streams.h"
#include "korvane/session/local_session.h"

namespace korvane::cluster {

class RedisConnection;

struct RedisBridgeOptions {
    RedisEndpoint endpoint;
    std::string prefix = "korvane:";
    std::size_t bufferSize = 10000;
};

class RedisBridge {
public:
    RedisBridge(std::shared_ptr<bayeux::LocalBayeuxSession> session, std::shared_ptr<bayeux::BayeuxServer> routing,
                RedisBridgeOptions options);
    ~RedisBridge();
    RedisBridge(const RedisBridge&) = delete;
    RedisBridge& operator=(const RedisBridge&) = delete;

    const std::string& originId() const { return origin; }
    // True while the bridge is subscribed to Redis, so that it hears the other servers;
    // callable from any thread.
    bool isConnected() const { return connected.load(std::memory_order_relaxed); }

private:
    struct Outbox;
    using Delivery = std::shared_ptr<const bayeux::PublishRequest>;

    void runPublisher();
    void runSubscriber();
    void publishFrame(RedisConnection& connection, const bayeux::PublishRequest& message);
    void receive(RedisConnection& connection);
    void injectFrame(std::string_view frame);
    std::shared_ptr<RedisConnection> connect(std::shared_ptr<RedisConnection>& slot, std::chrono::milliseconds ioTimeout);
    void release(std::shared_ptr<RedisConnection>& slot);
    // Waits out one backoff step; false when the bridge is stopping.
    bool pause(std::chrono::milliseconds wait);
    bool isStopping();

    const std::string origin;
    const RedisBridgeOptions options;
    const std::shared_ptr<bayeux::LocalBayeuxSession> session;
    const std::shared_ptr<bayeux::BayeuxServer> routing;
    // Shared with the subscription's callback, which may outlive a call into the bridge.
    const std::shared_ptr<Outbox> outbox;
    std::shared_ptr<reactive_streams::PublisherAPI<Delivery>> everything;

    // Guards `stopping` and the two connection slots, which interrupt() reaches from the destructor.
    std::mutex mutex;
    std::condition_variable stopped;
    bool stopping = false;
    std::shared_ptr<RedisConnection> publishing;
    std::shared_ptr<RedisConnection> subscribed;
    // Set by the subscriber thread once its PSUBSCRIBE succeeded, cleared when that connection fails.
    std::atomic<bool> connected{false};

    std::thread publisherThread;
    std::thread subscriberThread;
};

}  // namespace korvane::cluster
