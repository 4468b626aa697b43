#include "korvane/session/long_poll_session.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <iostream>
#include <string_view>
#include <thread>
#include <utility>

#include "korvane/frame/logger.h"
#include "korvane/frame/random.h"
#include "korvane/routing/bayeux_counters.h"
#include "korvane/routing/bayeux_queue.h"

namespace korvane::bayeux {

namespace {

common::diagnostic_logger logger("korvane::bayeux::longPollSession");

constexpr std::size_t deliverLogDataLimit = 500;
constexpr unsigned char bufferPeriodMilliseconds = 5;
constexpr std::int64_t shortPollIntervalMilliseconds = 200;

// The first eight bytes of `text`, the rest zero when it is shorter.
std::uint64_t leadingWord(const std::string& text) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data(), std::min(text.size(), sizeof word));
    return word;
}

std::string_view dataText(const PublishRequest& request) {
    return request.data ? request.data->view() : std::string_view();
}

// What one waiting message counts toward PendingLimit::maxBytes.
std::size_t pendingSize(const PublishRequest& message) { return message.channel.size() + dataText(message).size(); }

// A remote client's pattern: "/..." not ending in "/", with a wildcard only at the very end
// ("*" or "**").
bool isValidPattern(const std::string& pattern) {
    if (pattern.size() < 2 || pattern.front() != '/' || pattern.back() == '/') {
        return false;
    }
    const std::size_t star = pattern.find('*');
    const std::size_t last = pattern.size() - 1;
    return star == std::string::npos || star == last || (star == last - 1 && pattern[last] == '*');
}

// Calls `send` once for every hold of every pattern in the tree below `node`, whose path is `path`.
template <class Send>
void forEachHeldPattern(const Channel& node, const std::string& path, Send& send) {
    for (unsigned i = 0; i < node.exactCount; ++i) {
        send(path);
    }
    for (unsigned i = 0; i < node.singleWildcardCount; ++i) {
        send(path + "/*");
    }
    for (unsigned i = 0; i < node.deepWildcardCount; ++i) {
        send(path + "/**");
    }
    for (const auto& child : node.children) {
        forEachHeldPattern(*child.second, path + "/" + child.first, send);
    }
}

}  // namespace

std::atomic<unsigned long> LongPollSession::publisherCounter{0};

LongPollSession::LongPollSession(std::shared_ptr<BayeuxServer> server, std::shared_ptr<Context> context,
                                 PendingLimit pendingLimit, OutgoingHook outgoing)
    : pendingLimit(std::move(pendingLimit)),
      outgoing(std::move(outgoing)),
      id(common::randomString(16)),
      server(std::move(server)),
      context(std::move(context)) {
    idHead = leadingWord(id);
    KORVANE_LOG(logger, common::logTrace) << "Create: " << id;
}

LongPollSession::~LongPollSession() {
    KORVANE_LOG(logger, common::logTrace) << "destroy: " << id;
    std::unique_ptr<common::RearmableTimer> timer;
    std::unique_lock<std::mutex> lock(mutex);
    timer = std::move(answerTimer);
    // With `open` clear neither batching rule holds: an open connect is answered now.
    open = false;
    sendResponse = true;
    doNotifyQueue(lock);
    lock.unlock();
    server->forgetSession(*this);
    notifyUnsubscribeAll();
}

std::shared_ptr<Context> LongPollSession::getContext() const { return context; }

std::string LongPollSession::getId() const { return id; }

// `id` never changes after construction, so no lock is needed.
bool LongPollSession::hasId(const std::string& other) const {
    return other.size() == id.size() && leadingWord(other) == idHead && other == id;
}

void LongPollSession::deliver(const std::vector<std::string>& segments,
                              const std::shared_ptr<const PublishRequest>& message) {
    std::unique_lock<std::mutex> lock(mutex);
    if (pendingLimitExceeded || !channels.channelMatches(segments)) {
        return;
    }
    doDeliver(lock, message);
}

void LongPollSession::deliverDeclaredMatch(const std::vector<std::string>& segments,
                                           const std::shared_ptr<const PublishRequest>& message) {
    std::unique_lock<std::mutex> lock(mutex);
    // Patterns only grow until one is withdrawn, so until then the server's match stands.
    if (pendingLimitExceeded || (patternWithdrawn && !channels.channelMatches(segments))) {
        return;
    }
    doDeliver(lock, message);
}

void LongPollSession::doDeliver(std::unique_lock<std::mutex>& lock,
                                const std::shared_ptr<const PublishRequest>& message) {
    KORVANE_LOG(logger, common::logTrace) << "deliver: " << id << ", " << message->channel << ", "
                           << dataText(*message).substr(0, deliverLogDataLimit) << ", " << bufferResponses;
    if (!message->id.empty()) {
        KORVANE_LOG(logger, common::logWarning) << "Delivering message with set id. JS client will ignore it: '"
                                                << message->channel << "'";
    }
    pendingMessages.push_back(message);
    pendingBytes += pendingSize(*message);
    count(BayeuxCounter::deliveries);
    raisePendingHighWater(pendingMessages.size());
    const bool limitExceeded = doCheckPendingLimit(lock);
    if (bufferResponses) {
        setBufferTimeout(lock);
    }
    doNotifyQueue(lock);
    lock.unlock();
    if (limitExceeded) {
        // The owner may end this session from here: no lock of the session is held.
        pendingLimit.onExceeded(id);
    }
}

bool LongPollSession::doCheckPendingLimit(std::unique_lock<std::mutex>&) {
    const bool tooMany = pendingLimit.maxMessages != 0 && pendingMessages.size() > pendingLimit.maxMessages;
    const bool tooLarge = pendingLimit.maxBytes != 0 && pendingBytes > pendingLimit.maxBytes;
    if (!tooMany && !tooLarge) {
        return false;
    }
    pendingLimitExceeded = true;
    KORVANE_LOG(logger, common::logLifecycle) << "Pending message limit exceeded: " << id << ", "
                                              << pendingMessages.size() << " messages, " << pendingBytes << " bytes";
    return static_cast<bool>(pendingLimit.onExceeded);
}

void LongPollSession::deliver(const std::shared_ptr<const SubscribeRequest>&) {}

void LongPollSession::deliver(const std::shared_ptr<const UnsubscribeRequest>&) {}

bool LongPollSession::declaresPatternsTo(const BayeuxServer& routing) const { return &routing == server.get(); }

bool LongPollSession::publish(std::unique_ptr<PublishRequest>&& request) {
    KORVANE_LOG(logger, common::logTrace) << "publish: " << id << ", " << request->channel << ", " << dataText(*request);
    request->clientId = id;
    request->context = context;
    return server->deliver(std::move(request));
}

bool LongPollSession::subscribe(const std::string& pattern) {
    KORVANE_LOG(logger, common::logTrace) << "Subscribe: " << id << ", " << pattern;
    if (!isValidPattern(pattern)) {
        return false;
    }
    {
        std::lock_guard<std::mutex> guard(mutex);
        channels.pushPattern(pattern);
        server->declarePattern(*this, pattern);
    }
    auto notice = std::make_unique<SubscribeRequest>(pattern, id);
    notice->context = context;
    server->deliver(std::move(notice));
    return true;
}

bool LongPollSession::unsubscribe(const std::string& pattern) {
    KORVANE_LOG(logger, common::logTrace) << "Unsubscribe: " << id << ", " << pattern;
    if (!isValidPattern(pattern)) {
        return false;
    }
    {
        std::lock_guard<std::mutex> guard(mutex);
        if (!channels.popPattern(pattern)) {
            return false;
        }
        patternWithdrawn = true;
        server->withdrawPattern(*this, pattern);
    }
    auto notice = std::make_unique<UnsubscribeRequest>(pattern, id);
    notice->context = context;
    server->deliver(std::move(notice));
    return true;
}

std::shared_ptr<BayeuxQueue> LongPollSession::connectStream(const std::string& messageId, long long timeoutTicks,
                                                            bool bufferResponses, bool holdResponses) {
    // Made before the lock is taken, so that the queue's mutex is never taken under the session's.
    TempPublisher publisher = makeTempPublisher(queueName(messageId));
    // The replaced queue may go with its last reference: that happens after the lock is released.
    std::shared_ptr<BayeuxQueue> previousQueue;
    std::unique_lock<std::mutex> lock(mutex);
    doAnswerOpenConnect(lock);
    previousQueue = std::move(connectQueue);
    connectQueue = saveTempPublisher(lock, std::move(publisher));
    connectSink.reset();
    std::shared_ptr<BayeuxQueue> opened = connectQueue;
    doOpenConnect(lock, messageId, timeoutTicks, bufferResponses, holdResponses);
    return opened;
}

void LongPollSession::connectTo(const std::shared_ptr<ConnectSink>& sink, const std::string& messageId,
                                long long timeoutTicks, bool bufferResponses, bool holdResponses) {
    std::shared_ptr<BayeuxQueue> previousQueue;
    std::unique_lock<std::mutex> lock(mutex);
    doAnswerOpenConnect(lock);
    previousQueue = std::move(connectQueue);
    connectSink = sink;
    doOpenConnect(lock, messageId, timeoutTicks, bufferResponses, holdResponses);
}

void LongPollSession::doOpenConnect(std::unique_lock<std::mutex>& lock, const std::string& messageId,
                                    long long timeoutTicks, bool bufferResponses, bool holdResponses) {
    KORVANE_LOG(logger, common::logTrace) << "Connect stream: " << id << ", " << messageId << ", " << bufferResponses << ", "
                           << timeoutTicks << ", " << pendingMessages.size();
    this->bufferResponses = bufferResponses;
    this->holdResponses = holdResponses;
    connectMessageId = messageId;
    activeConnect = true;
    if (!answerTimer) {
        // Made here, on the connect's thread: a host that runs timers on its I/O threads runs this one on the
        // thread of the client's connection.
        answerTimer = common::rearmableTimer([weakSelf = weak_from_this()](long long tick) {
            onAnswerTimer(weakSelf, tick);
        });
    }
    if (timeoutTicks != 0 && (pendingMessages.empty() || !bufferResponses)) {
        setConnectTimeout(lock, timeoutTicks);
    } else {
        doCompleteQueue(lock);
        doNotifyQueue(lock);
    }
}

std::shared_ptr<BayeuxQueue> LongPollSession::korvaneShortPoll(const std::string& messageId) {
    std::unique_lock<std::mutex> lock(mutex);
    KORVANE_LOG(logger, common::logTrace) << "Connect short poll: " << id << ", " << messageId;
    doCompleteQueue(lock);
    doNotifyQueue(lock);
    std::string name = queueName(connectMessageId);
    common::RingQueue<std::shared_ptr<const PublishRequest>> taken;
    taken.swap(pendingMessages);
    pendingBytes = 0;
    lock.unlock();
    // The queue is fresh and reachable by no other thread, so it is filled with the lock released: no queue
    // mutex is ever taken under the session's.
    TempPublisher publisher = makeTempPublisher(std::move(name));
    const ConnectOutlet outlet{publisher.queue, nullptr};
    for (; !taken.empty(); taken.pop_front()) {
        sendOut(outlet, taken.front());
    }
    auto response = std::make_unique<ConnectResponse>();
    response->id = messageId;
    response->clientId = id;
    response->successful = true;
    response->advice = std::make_shared<BayeuxAdvice>();
    response->advice->reconnect = Advice::Retry;
    response->advice->interval = shortPollIntervalMilliseconds;
    publisher.queue->setValue(std::unique_ptr<Message>(std::move(response)));
    publisher.queue->doneWhenEmpty();
    lock.lock();
    return saveTempPublisher(lock, std::move(publisher));
}

bool LongPollSession::hasActiveConnect() {
    std::lock_guard<std::mutex> guard(mutex);
    return activeConnect && !connectGone();
}

void LongPollSession::flush() {
    std::unique_lock<std::mutex> lock(mutex);
    doCompleteQueue(lock);
}

std::string LongPollSession::queueName(const std::string& messageId) const {
    // Made in one allocation: id + "_" + messageId took two.
    std::string name;
    name.reserve(id.size() + 1 + messageId.size());
    name.append(id).append(1, '_').append(messageId);
    return name;
}

LongPollSession::TempPublisher LongPollSession::makeTempPublisher(std::string name) {
    TempPublisher publisher{std::make_shared<BayeuxQueue>(std::move(name)), publisherCounter.fetch_add(1)};
    std::weak_ptr<LongPollSession> weakSelf(shared_from_this());
    const unsigned long key = publisher.key;
    // Runs when the queue ends, under the queue's mutex: queue mutex before session mutex.
    publisher.queue->getFuture().then([weakSelf, key](Future<bool>&&) {
        if (auto self = weakSelf.lock()) {
            std::lock_guard<std::mutex> guard(self->mutex);
            self->doForgetTempPublisher(key);
        }
        return true;
    });
    return publisher;
}

std::shared_ptr<BayeuxQueue> LongPollSession::saveTempPublisher(std::unique_lock<std::mutex>&,
                                                                TempPublisher&& publisher) {
    tempPublishers.emplace_back(publisher.key, publisher.queue);
    return std::move(publisher.queue);
}

void LongPollSession::doForgetTempPublisher(unsigned long key) {
    auto found = std::find_if(tempPublishers.begin(), tempPublishers.end(),
                              [key](const auto& entry) { return entry.first == key; });
    if (found != tempPublishers.end()) {
        std::swap(*found, tempPublishers.back());
        tempPublishers.pop_back();
    }
}

void LongPollSession::doCompleteQueue(std::unique_lock<std::mutex>& lock) {
    bufferTimeoutSet = false;
    connectDeadline.reset();
    doSendConnectResponse(lock);
}

void LongPollSession::doSendConnectResponse(std::unique_lock<std::mutex>&) {
    if (activeConnect) {
        sendResponse = true;
    }
}

void LongPollSession::doNotifyQueue(std::unique_lock<std::mutex>& lock) {
    if (!activeConnect || (pendingMessages.empty() && !sendResponse)) {
        return;
    }
    if (!notifying && connectGone()) {
        doForgetGoneConnect(lock);
        return;
    }
    if (bufferTimeoutSet && open) {
        // A batch is being collected; the buffer timeout comes back here.
        return;
    }
    KORVANE_LOG(logger, common::logTrace) << "processQueue " << id << ", " << activeConnect << ", " << notifying;
    if (notifying && open) {
        // Another thread is draining; rather than wait for it, let the buffer timeout bring the work back.
        setBufferTimeout(lock);
        return;
    }
    try {
        notifying = true;
        ConnectOutlet outlet{connectQueue, connectSink.lock()};
        drainingThread = std::this_thread::get_id();
        if (doDrainPending(lock, outlet)) {
            return;
        }
        if (!sendResponse) {
            KORVANE_LOG(logger, common::logTrace) << "Not sending connect response (yet)";
            doFinishDrain();
            // The outlet's references go with the lock released.
            lock.unlock();
            outlet = ConnectOutlet();
            lock.lock();
            return;
        }
        doEndConnect(lock, std::move(outlet));
    } catch (const std::exception& error) {
        if (!lock.owns_lock()) {
            lock.lock();
        }
        doFinishDrain();
        std::cout << "Error in bayeux session: " << error.what() << "\n";
    } catch (...) {
        if (!lock.owns_lock()) {
            lock.lock();
        }
        doFinishDrain();
        std::cout << "Unknown error in bayeux session" << "\n";
    }
}

bool LongPollSession::connectGone() const {
    if (connectQueue) {
        return connectQueue->cancelled();
    }
    const std::shared_ptr<ConnectSink> sink = connectSink.lock();
    return !sink || sink->cancelled();
}

void LongPollSession::doForgetGoneConnect(std::unique_lock<std::mutex>& lock) {
    KORVANE_LOG(logger, common::logTrace) << "Connect gone with its client: " << id << ", " << connectMessageId;
    activeConnect = false;
    sendResponse = false;
    bufferTimeoutSet = false;
    connectDeadline.reset();
    std::shared_ptr<BayeuxQueue> gone = std::move(connectQueue);
    connectSink.reset();
    lock.unlock();
    gone.reset();
    lock.lock();
}

void LongPollSession::doFinishDrain() {
    notifying = false;
    drainEnded.notify_all();
}

void LongPollSession::doAnswerOpenConnect(std::unique_lock<std::mutex>& lock) {
    doCompleteQueue(lock);
    doNotifyQueue(lock);
    // Two things can keep the open connect from being answered right here, and the connect about to replace
    // it would then leave it unanswered for good: a drain on another thread that has the lock open (it
    // answers the connect when done, so wait for it), and a buffer timeout armed meanwhile, by a message that
    // came while the lock was open (complete again). A drain on this very thread, a subscriber
    // calling back, is not waited for.
    const std::thread::id self = std::this_thread::get_id();
    while (activeConnect) {
        if (notifying && drainingThread != self) {
            drainEnded.wait(lock);
        } else if (!notifying && bufferTimeoutSet) {
            doCompleteQueue(lock);
            doNotifyQueue(lock);
        } else {
            return;
        }
    }
}

bool LongPollSession::doDrainPending(std::unique_lock<std::mutex>& lock, ConnectOutlet& outlet) {
    // Messages that arrive while the lock is open join the back of the queue and go out in this same loop,
    // unless the last one went out with the reply: those wait for the next connect, as they would had
    // they come just after it.
    while (!pendingMessages.empty()) {
        std::shared_ptr<const PublishRequest> message = std::move(pendingMessages.front());
        pendingMessages.pop_front();
        pendingBytes -= pendingSize(*message);
        if (pendingMessages.empty() && sendResponse && outlet.sink && !outlet.queue && !outgoing) {
            doEndConnect(lock, std::move(outlet), &message);
            return true;
        }
        lock.unlock();
        sendOut(outlet, message);
        lock.lock();
    }
    return false;
}

void LongPollSession::sendOut(const ConnectOutlet& outlet, const std::shared_ptr<const PublishRequest>& message) const {
    if (!outgoing) {
        outlet.putPublish(message);
        return;
    }
    // The hook's own copy, without the sender's id; the shared original stays untouched for the others.
    auto copy = std::make_unique<PublishRequest>(message, PublishRequest::withoutSender);
    if (!outgoing(id, *copy)) {
        return;
    }
    outlet.put(std::unique_ptr<Message>(std::move(copy)));
}

void LongPollSession::ConnectOutlet::put(std::unique_ptr<Message>&& message) const {
    if (queue) {
        queue->setValue(std::move(message));
    } else if (sink) {
        sink->deliver(std::move(message));
    }
}

void LongPollSession::ConnectOutlet::putPublish(const std::shared_ptr<const PublishRequest>& message) const {
    if (queue) {
        queue->setValue(std::make_unique<PublishRequest>(message, PublishRequest::withoutSender));
    } else if (sink) {
        sink->deliverPublish(message);
    }
}

void LongPollSession::ConnectOutlet::putConnectReply(const std::string& messageId, const std::string& clientId) const {
    if (queue) {
        queue->setValue(makeConnectReply(messageId, clientId));
    } else if (sink) {
        sink->deliverConnectReply(messageId, clientId);
    }
}

void LongPollSession::ConnectOutlet::putPublishAndReply(const std::shared_ptr<const PublishRequest>& message,
                                                       const std::string& messageId, const std::string& clientId) const {
    sink->deliverPublishAndReply(message, messageId, clientId);
}

void LongPollSession::ConnectOutlet::end() const {
    if (queue) {
        queue->doneWhenEmpty();
    }
}

void LongPollSession::doEndConnect(std::unique_lock<std::mutex>& lock, ConnectOutlet outlet,
                                   const std::shared_ptr<const PublishRequest>* last) {
    sendResponse = false;
    activeConnect = false;
    connectDeadline.reset();
    const std::string messageId = connectMessageId;
    lock.unlock();
    // The response is always the last message of the stream; the queue ends once the transport has taken it.
    if (last != nullptr) {
        outlet.putPublishAndReply(*last, messageId, id);
    } else {
        outlet.putConnectReply(messageId, id);
    }
    outlet.end();
    // A newer connect may have replaced this queue meanwhile: this may be its last reference.
    outlet = ConnectOutlet();
    lock.lock();
    KORVANE_LOG(logger, common::logTrace) << "Connect response: " << id << ", " << connectMessageId;
    doFinishDrain();
}

void LongPollSession::setConnectTimeout(std::unique_lock<std::mutex>&, long long ticks) {
    const long long now = common::getCurrentTick();
    KORVANE_LOG(logger, common::logTrace) << "Set connect timeout: " << id << ", " << ticks << ", " << now;
    bufferTimeoutSet = false;
    connectDeadline = now + ticks;
    // A timer due by this deadline stays: it finds this connect when it fires, and arms itself for the rest.
    if (!timerDeadline || *timerDeadline > *connectDeadline) {
        armForDeadline(now);
    }
}

void LongPollSession::setBufferTimeout(std::unique_lock<std::mutex>&) {
    KORVANE_LOG(logger, common::logTrace) << "Set buffer timeout: " << id << ", " << common::getCurrentTick() << ", "
                           << bufferTimeoutSet << ", " << activeConnect;
    if (bufferTimeoutSet || !activeConnect) {
        return;
    }
    bufferTimeoutSet = true;
    // The connect's deadline goes for good: from now on the buffer timeout alone ends this connect.
    connectDeadline.reset();
    timerDeadline.reset();
    answerTimer->arm(std::chrono::milliseconds(bufferPeriodMilliseconds));
}

void LongPollSession::onAnswerTimer(const std::weak_ptr<LongPollSession>& weakSelf, long long tick) {
    std::shared_ptr<LongPollSession> self = weakSelf.lock();
    if (!self) {
        return;
    }
    std::unique_lock<std::mutex> lock(self->mutex);
    // Armed again while this firing waited for the lock: the newer arming decides.
    if (!self->answerTimer || self->answerTimer->isArmed()) {
        return;
    }
    if (self->bufferTimeoutSet) {
        self->doBufferTimeout(lock, tick);
    } else {
        self->doConnectTimeout(lock, tick);
    }
}

void LongPollSession::doConnectTimeout(std::unique_lock<std::mutex>& lock, long long tick) {
    KORVANE_LOG(logger, common::logTrace) << "doConnectTimeout: " << id << ", " << tick;
    const long long now = common::getCurrentTick();
    timerDeadline.reset();
    if (connectDeadline && *connectDeadline > now) {
        armForDeadline(now);
    } else if (connectDeadline) {
        doCompleteQueue(lock);
        doNotifyQueue(lock);
    }
}

void LongPollSession::doBufferTimeout(std::unique_lock<std::mutex>& lock, long long tick) {
    KORVANE_LOG(logger, common::logTrace) << "doBufferTimeout: " << id << ", " << tick;
    doCompleteQueue(lock);
    doNotifyQueue(lock);
}

void LongPollSession::armForDeadline(long long now) {
    timerDeadline = *connectDeadline;
    answerTimer->arm(common::durationOfTicks(*timerDeadline - now));
}

void LongPollSession::notifyUnsubscribeAll() {
    auto send = [this](const std::string& pattern) {
        auto notice = std::make_unique<UnsubscribeRequest>(pattern, id);
        notice->context = context;
        server->deliver(std::move(notice));
    };
    forEachHeldPattern(channels, std::string(), send);
}

}  // namespace korvane::bayeux
