#include "korvane/cluster/redis_bridge.h"

#include <hiredis/hiredis.h>
#include <pthread.h>
#include <signal.h>

#include <optional>
#include <stdexcept>
#include <utility>

#include "korvane/cluster/backoff.h"
#include "korvane/cluster/bounded_queue.h"
#include "korvane/cluster/cluster_frame.h"
#include "korvane/cluster/redis_connection.h"
#include "korvane/frame/callback_subscriber.h"
#include "korvane/frame/logger.h"
#include "korvane/frame/random.h"
#include "korvane/frame/warning_throttle.h"

namespace korvane::cluster {

namespace {

common::diagnostic_logger logger("korvane::cluster");

constexpr std::chrono::milliseconds connectTimeout{2000};
// A PUBLISH that takes longer than this counts as a lost connection.
constexpr std::chrono::milliseconds publishTimeout{5000};
constexpr std::chrono::milliseconds firstRetry{100};
constexpr std::chrono::milliseconds longestRetry{5000};
constexpr std::chrono::seconds warningPeriod{10};

// Channels that stay with the server that received them.
bool staysLocal(const std::string& channel) {
    return channel.rfind("/meta/", 0) == 0 || channel.rfind("/service/", 0) == 0;
}

// hiredis writes with write(2), so a write to a connection that Redis closed (or that
// the destructor shut down) raises SIGPIPE, which would end the process. Blocked on
// the bridge's own threads, it leaves the write failing with EPIPE instead.
void blockBrokenPipeSignal() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

// `prefix` taken literally in a PSUBSCRIBE pattern, followed by *.
std::string prefixPattern(const std::string& prefix) {
    std::string pattern;
    for (const char c : prefix) {
        if (c == '*' || c == '?' || c == '[' || c == ']' || c == '\\') {
            pattern.push_back('\\');
        }
        pattern.push_back(c);
    }
    pattern.push_back('*');
    return pattern;
}

}  // namespace

// What the subscription's callback needs, shared so that a callback still running
// while the bridge goes away finds it alive. The queue and the throttle lock themselves.
struct RedisBridge::Outbox {
    Outbox(std::size_t capacity, std::shared_ptr<Context> inboundMark)
        : queue(capacity), throttle(warningPeriod), inboundMark(std::move(inboundMark)) {}

    // Logs at most once per warning period, with the count of messages dropped meanwhile.
    void warn(const std::string& what) {
        if (!throttle.allow(common::WarningThrottle::Clock::now())) {
            return;
        }
        const std::uint64_t dropped = queue.takeDropped();
        KORVANE_LOG(logger, common::logWarning) << what
                                 << (dropped ? "; messages dropped since the last warning: " + std::to_string(dropped)
                                             : std::string());
    }

    // Runs on the publisher's thread: never waits for Redis.
    void take(Delivery&& message) {
        if (message->context == inboundMark || staysLocal(message->channel)) {
            return;
        }
        if (queue.push(std::move(message)) == BoundedQueue<Delivery>::Push::Dropped) {
            warn("Cluster buffer full: messages for Redis are being dropped");
        }
    }

    BoundedQueue<Delivery> queue;
    common::WarningThrottle throttle;
    // The context of messages that came in from Redis.
    const std::shared_ptr<Context> inboundMark;
};

RedisBridge::RedisBridge(std::shared_ptr<bayeux::LocalBayeuxSession> session,
                         std::shared_ptr<bayeux::BayeuxServer> routing, RedisBridgeOptions options)
    : origin(common::randomString(16)),
      options(std::move(options)),
      session(std::move(session)),
      routing(std::move(routing)),
      outbox(std::make_shared<Outbox>(this->options.bufferSize, this->session->getContext())) {
    if (!outbox->inboundMark) {
        throw std::invalid_argument("The Redis bridge needs a session with a context");
    }
    everything = this->session->subscribe("/**");
    everything->subscribe(std::make_shared<reactive_streams::CallbackSubscriber<Delivery>>(
        [outbox = outbox](Delivery&& message) { outbox->take(std::move(message)); }));
    publisherThread = std::thread([this] { runPublisher(); });
    subscriberThread = std::thread([this] { runSubscriber(); });
}

RedisBridge::~RedisBridge() {
    everything.reset();
    {
        std::lock_guard<std::mutex> guard(mutex);
        stopping = true;
        for (const auto* slot : {&publishing, &subscribed}) {
            if (*slot) {
                (*slot)->interrupt();
            }
        }
    }
    stopped.notify_all();
    outbox->queue.close();
    publisherThread.join();
    subscriberThread.join();
}

void RedisBridge::runPublisher() {
    blockBrokenPipeSignal();
    Backoff backoff(firstRetry, longestRetry);
    std::optional<Delivery> pending;
    std::shared_ptr<RedisConnection> connection;
    for (;;) {
        if (!pending && !(pending = outbox->queue.pop())) {
            return;
        }
        if (!connection) {
            connection = connect(publishing, publishTimeout);
            if (!connection) {
                if (!pause(backoff.next())) {
                    return;
                }
                continue;
            }
        }
        try {
            publishFrame(*connection, **pending);
            pending.reset();
            backoff.reset();
        } catch (const std::invalid_argument& unframeable) {
            outbox->warn(std::string("Not sent to Redis: ") + unframeable.what());
            pending.reset();
        } catch (const std::runtime_error& failure) {
            // The message in hand is sent again once a new connection stands.
            if (isStopping()) {
                return;
            }
            outbox->warn(failure.what());
            release(publishing);
            connection.reset();
            // An error reply comes back at once on a new connection too: wait before the next try.
            if (!pause(backoff.next())) {
                return;
            }
        }
    }
}

void RedisBridge::runSubscriber() {
    blockBrokenPipeSignal();
    Backoff backoff(firstRetry, longestRetry);
    for (;;) {
        if (auto connection = connect(subscribed, std::chrono::milliseconds(0))) {
            try {
                connection->command({"PSUBSCRIBE", prefixPattern(options.prefix)});
                KORVANE_LOG(logger, common::logLifecycle) << "Subscribed to Redis at " << options.endpoint.describe();
                connected.store(true, std::memory_order_relaxed);
                backoff.reset();
                for (;;) {
                    receive(*connection);
                }
            } catch (const std::runtime_error& failure) {
                if (!isStopping()) {
                    outbox->warn(failure.what());
                }
            }
            connected.store(false, std::memory_order_relaxed);
            release(subscribed);
        }
        if (!pause(backoff.next())) {
            return;
        }
    }
}

void RedisBridge::publishFrame(RedisConnection& connection, const bayeux::PublishRequest& message) {
    const std::string frame = encodeClusterFrame(origin, message);
    connection.command({"PUBLISH", options.prefix + message.channel, frame});
}

void RedisBridge::receive(RedisConnection& connection) {
    const RedisReply reply = connection.nextReply();
    // A pattern subscription's message: "pmessage", the pattern, the channel, the payload.
    if (reply->type != REDIS_REPLY_ARRAY || reply->elements != 4) {
        return;
    }
    const redisReply* kind = reply->element[0];
    const redisReply* payload = reply->element[3];
    if (std::string_view(kind->str, kind->len) == "pmessage" && payload->type == REDIS_REPLY_STRING) {
        injectFrame(std::string_view(payload->str, payload->len));
    }
}

void RedisBridge::injectFrame(std::string_view frame) {
    ClusterFrame decoded;
    try {
        decoded = decodeClusterFrame(frame);
    } catch (const std::invalid_argument& malformed) {
        outbox->warn(std::string("Ignored a message from Redis: ") + malformed.what());
        return;
    }
    if (decoded.origin == origin) {
        return;
    }
    // Under the publisher's own clientId, which no session here has, so every
    // subscriber gets it; the context tells the bridge's subscription to let it pass.
    decoded.message->context = session->getContext();
    try {
        routing->deliver(std::move(decoded.message));
    } catch (const std::exception& failure) {
        // A session's failure during fan-out; the next message is delivered all the same.
        outbox->warn(std::string("Delivery of a message from Redis failed: ") + failure.what());
    }
}

std::shared_ptr<RedisConnection> RedisBridge::connect(std::shared_ptr<RedisConnection>& slot,
                                                      std::chrono::milliseconds ioTimeout) {
    std::shared_ptr<RedisConnection> connection;
    try {
        connection = std::make_shared<RedisConnection>(options.endpoint, connectTimeout, ioTimeout);
    } catch (const std::runtime_error& failure) {
        outbox->warn(failure.what());
        return nullptr;
    }
    std::lock_guard<std::mutex> guard(mutex);
    if (stopping) {
        return nullptr;
    }
    slot = connection;
    return connection;
}

void RedisBridge::release(std::shared_ptr<RedisConnection>& slot) {
    std::lock_guard<std::mutex> guard(mutex);
    slot.reset();
}

bool RedisBridge::isStopping() {
    std::lock_guard<std::mutex> guard(mutex);
    return stopping;
}

bool RedisBridge::pause(std::chrono::milliseconds wait) {
    std::unique_lock<std::mutex> lock(mutex);
    return !stopped.wait_for(lock, wait, [this] { return stopping; });
}

}  // namespace korvane::cluster
