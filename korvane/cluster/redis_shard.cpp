#include "korvane/cluster/redis_shard.h"

#include <hiredis/hiredis.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "korvane/cluster/backoff.h"
#include "korvane/cluster/channel_sharding.h"
#include "korvane/cluster/cluster_frame.h"
#include "korvane/cluster/redis_connection.h"
#include "korvane/frame/logger.h"

namespace korvane::cluster {

namespace {

common::diagnostic_logger logger("korvane::cluster");

constexpr std::chrono::milliseconds connectTimeout{2000};
// A PUBLISH that takes longer than this counts as a lost connection.
constexpr std::chrono::milliseconds publishTimeout{5000};
constexpr std::chrono::milliseconds firstRetry{100};
constexpr std::chrono::milliseconds longestRetry{5000};
constexpr std::chrono::seconds warningPeriod{10};
constexpr std::chrono::seconds probePeriod{1};
// Names per SUBSCRIBE-like command, so that a resubscription of many channels is several modest commands.
constexpr std::size_t namesPerCommand = 1000;
// Marks the PING sent after a batch of changes, as against the lag probe's.
const std::string settlePrefix = "settle:";

// hiredis writes with write(2), so a write to a connection that Redis closed (or that
// stop() shut down) raises SIGPIPE, which would end the process. Blocked on the
// shard's own threads, it leaves the write failing with EPIPE instead.
void blockBrokenPipeSignal() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

int makeWakeDescriptor() {
    const int descriptor = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (descriptor < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd for the Redis subscriber");
    }
    return descriptor;
}

std::string_view text(const redisReply* reply) {
    return reply->type == REDIS_REPLY_STRING || reply->type == REDIS_REPLY_STATUS
               ? std::string_view(reply->str, reply->len)
               : std::string_view();
}

long long microsSinceEpoch(std::chrono::steady_clock::time_point time) {
    return std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
}

}  // namespace

RedisShard::RedisShard(RedisEndpoint endpoint, const ShardSetting& setting)
    : endpoint(std::move(endpoint)),
      setting(setting),
      queue(setting.bufferSize),
      throttle(warningPeriod),
      wake(makeWakeDescriptor()) {
    publisherThread = std::thread([this] { runPublisher(); });
    subscriberThread = std::thread([this] { runSubscriber(); });
}

RedisShard::~RedisShard() {
    if (subscriberThread.joinable()) {
        stop();
    }
    ::close(wake);
}

void RedisShard::publish(Delivery message, std::string channel) {
    if (queue.push(Outgoing{std::move(message), std::move(channel)}) == BoundedQueue<Outgoing>::Push::Dropped) {
        warn("Cluster buffer full: messages for Redis are being dropped");
    }
}

void RedisShard::noteInterest(const std::string& key) {
    {
        std::lock_guard<std::mutex> guard(pending);
        pendingKeys.push_back(key);
        ++notesRequested;
    }
    dirty.store(true, std::memory_order_release);
    const std::uint64_t one = 1;
    // Fails only when the counter is saturated, which wakes the subscriber all the same.
    [[maybe_unused]] const ssize_t written = ::write(wake, &one, sizeof one);
}

void RedisShard::awaitSettled(std::chrono::steady_clock::time_point deadline) {
    std::unique_lock<std::mutex> lock(pending);
    const std::uint64_t target = notesRequested;
    settledChanged.wait_until(lock, deadline, [&] { return notesSettled >= target || !isConnected(); });
}

void RedisShard::markSettled(std::uint64_t covered) {
    {
        std::lock_guard<std::mutex> guard(pending);
        notesSettled = std::max(notesSettled, covered);
    }
    settledChanged.notify_all();
}

void RedisShard::setConnected(bool up) {
    {
        // Under the lock, so that awaitSettled cannot miss the change between its check and its wait.
        std::lock_guard<std::mutex> guard(pending);
        connected.store(up, std::memory_order_relaxed);
    }
    settledChanged.notify_all();
}

void RedisShard::sendSettleMark(RedisConnection& connection, const Changes& changes) {
    connection.send({"PING", settlePrefix + std::to_string(changes.covers)});
}

void RedisShard::stop() {
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
    queue.close();
    publisherThread.join();
    subscriberThread.join();
}

void RedisShard::addTo(RedisBridgeStats& stats) {
    ++stats.shards;
    stats.shardsUp += isConnected() ? 1 : 0;
    stats.messagesOut += messagesOut.load(std::memory_order_relaxed);
    stats.messagesIn += messagesIn.load(std::memory_order_relaxed);
    stats.dropped += queue.totalDropped();
    stats.reconnects += reconnects.load(std::memory_order_relaxed);
    stats.lagMicros = std::max<std::uint64_t>(stats.lagMicros, lagMicros.load(std::memory_order_relaxed));
}

void RedisShard::warn(const std::string& what) {
    if (!throttle.allow(common::WarningThrottle::Clock::now())) {
        return;
    }
    const std::uint64_t dropped = queue.takeDropped();
    KORVANE_LOG(logger, common::logWarning) << what
                             << (dropped ? "; messages dropped since the last warning: " + std::to_string(dropped)
                                         : std::string());
}

void RedisShard::runPublisher() {
    blockBrokenPipeSignal();
    Backoff backoff(firstRetry, longestRetry);
    std::optional<Outgoing> pending;
    std::shared_ptr<RedisConnection> connection;
    bool failedBefore = false;
    for (;;) {
        if (!pending && !(pending = queue.pop())) {
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
            reconnects.fetch_add(failedBefore ? 1 : 0, std::memory_order_relaxed);
        }
        try {
            const std::string frame = encodeClusterFrame(setting.origin, *pending->message);
            connection->command({"PUBLISH", setting.prefix + pending->channel, frame});
            bump(messagesOut);
            pending.reset();
            backoff.reset();
        } catch (const std::invalid_argument& unframeable) {
            warn(std::string("Not sent to Redis: ") + unframeable.what());
            pending.reset();
        } catch (const std::runtime_error& failure) {
            // The message in hand is sent again once a new connection stands.
            if (isStopping()) {
                return;
            }
            warn(failure.what());
            release(publishing);
            connection.reset();
            failedBefore = true;
            // An error reply comes back at once on a new connection too: wait before the next try.
            if (!pause(backoff.next())) {
                return;
            }
        }
    }
}

void RedisShard::runSubscriber() {
    blockBrokenPipeSignal();
    Backoff backoff(firstRetry, longestRetry);
    bool failedBefore = false;
    for (;;) {
        if (auto connection = connect(subscribed, std::chrono::milliseconds(0))) {
            try {
                connection->command({"PING"});
                reconnects.fetch_add(failedBefore ? 1 : 0, std::memory_order_relaxed);
                KORVANE_LOG(logger, common::logLifecycle) << "Subscribed to Redis at " << endpoint.describe();
                setConnected(true);
                backoff.reset();
                listen(*connection);
            } catch (const std::runtime_error& failure) {
                if (!isStopping()) {
                    warn(failure.what());
                }
            }
            setConnected(false);
            release(subscribed);
        }
        failedBefore = true;
        if (!pause(backoff.next())) {
            return;
        }
    }
}

void RedisShard::listen(RedisConnection& connection) {
    confirmedChannels.clear();
    confirmedGlobs.clear();
    dirty.store(false, std::memory_order_relaxed);
    const Changes taken = takeInterest();
    resubscribeAll(connection);
    sendSettleMark(connection, taken);
    for (;;) {
        if (const RedisReply reply = connection.nextReply(wake, probePeriod)) {
            handle(*reply);
        } else {
            std::uint64_t count;
            [[maybe_unused]] const ssize_t read = ::read(wake, &count, sizeof count);
        }
        // A plain load first: the exchange, a locked write, only when something changed.
        if (dirty.load(std::memory_order_relaxed) && dirty.exchange(false, std::memory_order_acquire)) {
            const Changes changes = takeInterest();
            sendAll(connection, "UNSUBSCRIBE", changes.unsubscribe);
            sendAll(connection, "PUNSUBSCRIBE", changes.punsubscribe);
            sendAll(connection, "SUBSCRIBE", changes.subscribe);
            sendAll(connection, "PSUBSCRIBE", changes.psubscribe);
            sendSettleMark(connection, changes);
        }
        probe(connection, std::chrono::steady_clock::now());
    }
}

RedisShard::Changes RedisShard::takeInterest() {
    std::vector<std::string> keys;
    Changes changes;
    {
        std::lock_guard<std::mutex> guard(pending);
        keys.swap(pendingKeys);
        changes.covers = notesRequested;
    }
    for (const std::string& key : keys) {
        // The routing core's state now, whatever order the notices came in.
        const bool held = setting.routing->isHeld(key);
        if (held == (heldKeys.count(key) != 0)) {
            continue;
        }
        const std::string path = setting.prefix + keyPath(key);
        if (held) {
            heldKeys.insert(key);
        } else {
            heldKeys.erase(key);
        }
        if (!isWildcardKey(key)) {
            if (held) {
                channels.insert(path);
            } else {
                channels.erase(path);
            }
            (held ? changes.subscribe : changes.unsubscribe).push_back(path);
            continue;
        }
        // "/a/*" and "/a/**" share one Redis pattern, counted.
        const std::string glob = redisGlob(path);
        if (held && ++globs[glob] == 1) {
            changes.psubscribe.push_back(glob);
        } else if (!held && --globs[glob] == 0) {
            globs.erase(glob);
            changes.punsubscribe.push_back(glob);
        }
    }
    return changes;
}

void RedisShard::resubscribeAll(RedisConnection& connection) {
    sendAll(connection, "SUBSCRIBE", std::vector<std::string>(channels.begin(), channels.end()));
    std::vector<std::string> patterns;
    for (const auto& glob : globs) {
        patterns.push_back(glob.first);
    }
    sendAll(connection, "PSUBSCRIBE", patterns);
}

void RedisShard::sendAll(RedisConnection& connection, const char* command, const std::vector<std::string>& names) {
    // Never empty: an UNSUBSCRIBE without names would drop every subscription.
    for (std::size_t first = 0; first < names.size(); first += namesPerCommand) {
        std::vector<std::string_view> arguments{command};
        for (std::size_t at = first; at < names.size() && at < first + namesPerCommand; ++at) {
            arguments.push_back(names[at]);
        }
        connection.send(arguments);
    }
}

void RedisShard::handle(const redisReply& reply) {
    if (reply.type == REDIS_REPLY_STRING) {
        // A PING's answer while the connection subscribes to nothing: its argument.
        answered(std::string(text(&reply)));
    }
    if (reply.type != REDIS_REPLY_ARRAY || reply.elements < 2) {
        return;
    }
    const std::string_view kind = text(reply.element[0]);
    if (kind == "message" && reply.elements == 3) {
        bump(messagesIn);
        injectFrame(text(reply.element[2]));
        return;
    }
    const std::string name(text(reply.element[1]));
    if (kind == "pmessage" && reply.elements == 4) {
        bump(messagesIn);
        if (isFirstCopy(name, std::string(text(reply.element[2])))) {
            injectFrame(text(reply.element[3]));
        }
    } else if (kind == "subscribe") {
        confirmedChannels.insert(name);
    } else if (kind == "unsubscribe") {
        confirmedChannels.erase(name);
    } else if (kind == "psubscribe") {
        confirmedGlobs.insert(name);
    } else if (kind == "punsubscribe") {
        confirmedGlobs.erase(name);
    } else if (kind == "pong") {
        answered(name);
    }
}

void RedisShard::answered(const std::string& ping) {
    if (ping.rfind(settlePrefix, 0) == 0) {
        markSettled(std::strtoull(ping.c_str() + settlePrefix.size(), nullptr, 10));
    } else {
        measureLag(ping);
    }
}

void RedisShard::measureLag(const std::string& probeSent) {
    const long long sent = std::strtoll(probeSent.c_str(), nullptr, 10);
    lagMicros.store(static_cast<std::uint64_t>(microsSinceEpoch(std::chrono::steady_clock::now()) - sent),
                    std::memory_order_relaxed);
}

bool RedisShard::isFirstCopy(const std::string& glob, const std::string& channel) const {
    if (confirmedChannels.count(channel) != 0) {
        return false;
    }
    for (std::size_t slash = channel.find('/', setting.prefix.size()); slash != std::string::npos;
         slash = channel.find('/', slash + 1)) {
        const std::string shortest = redisGlob(channel.substr(0, slash + 1));
        if (confirmedGlobs.count(shortest) != 0) {
            return shortest == glob;
        }
    }
    return true;
}

void RedisShard::probe(RedisConnection& connection, std::chrono::steady_clock::time_point now) {
    if (now - lastProbe >= probePeriod) {
        lastProbe = now;
        connection.send({"PING", std::to_string(microsSinceEpoch(now))});
    }
}

void RedisShard::injectFrame(std::string_view frame) {
    ClusterFrame decoded;
    try {
        decoded = decodeClusterFrame(frame);
    } catch (const std::invalid_argument& malformed) {
        warn(std::string("Ignored a message from Redis: ") + malformed.what());
        return;
    }
    if (decoded.origin == setting.origin) {
        return;
    }
    // Under the publisher's own clientId, which no session here has, so every
    // subscriber gets it; the context tells the bridge's outlet not to send it back out.
    decoded.message->context = setting.inboundMark;
    try {
        setting.routing->deliver(std::move(decoded.message));
    } catch (const std::exception& failure) {
        // A session's failure during fan-out; the next message is delivered all the same.
        warn(std::string("Delivery of a message from Redis failed: ") + failure.what());
    }
}

std::shared_ptr<RedisConnection> RedisShard::connect(std::shared_ptr<RedisConnection>& slot,
                                                     std::chrono::milliseconds ioTimeout) {
    std::shared_ptr<RedisConnection> connection;
    try {
        connection = std::make_shared<RedisConnection>(endpoint, connectTimeout, ioTimeout);
    } catch (const std::runtime_error& failure) {
        warn(failure.what());
        return nullptr;
    }
    std::lock_guard<std::mutex> guard(mutex);
    if (stopping) {
        return nullptr;
    }
    slot = connection;
    return connection;
}

void RedisShard::release(std::shared_ptr<RedisConnection>& slot) {
    std::lock_guard<std::mutex> guard(mutex);
    slot.reset();
}

bool RedisShard::isStopping() {
    std::lock_guard<std::mutex> guard(mutex);
    return stopping;
}

bool RedisShard::pause(std::chrono::milliseconds wait) {
    std::unique_lock<std::mutex> lock(mutex);
    return !stopped.wait_for(lock, wait, [this] { return stopping; });
}

}  // namespace korvane::cluster
