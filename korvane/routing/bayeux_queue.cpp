#include "korvane/routing/bayeux_queue.h"

#include <execinfo.h>
#include <unistd.h>

#include <cstdint>
#include <iostream>
#include <limits>
#include <stdexcept>
#include <typeinfo>
#include <utility>

#include "korvane/frame/logger.h"
#include "korvane/frame/type_name.h"

namespace korvane::bayeux {

namespace {

common::diagnostic_logger logger("korvane::bayeux::queue");

constexpr int maxTraceFrames = 128;

// A subscription used after its queue died marks a lifetime fault in the
// subscriber: leave a trace of who did it before refusing.
[[noreturn]] void refuseWithoutPublisher(const char* text) {
    KORVANE_LOG(logger, common::logFailure) << "Cancelled with no publisher";
    void* frames[maxTraceFrames];
    const int depth = backtrace(frames, maxTraceFrames);
    backtrace_symbols_fd(frames, depth, STDERR_FILENO);
    std::cerr << std::endl;
    throw std::runtime_error(text);
}

}  // namespace

BayeuxQueue::BayeuxQueueSubscription::BayeuxQueueSubscription(std::weak_ptr<BayeuxQueue> owner)
    : queue(std::move(owner)) {}

BayeuxQueue::BayeuxQueueSubscription::~BayeuxQueueSubscription() = default;

void BayeuxQueue::BayeuxQueueSubscription::request(unsigned long n) {
    // The strong reference keeps the queue alive for the whole call.
    if (const std::shared_ptr<BayeuxQueue> alive = queue.lock()) {
        alive->request(n);
        return;
    }
    refuseWithoutPublisher("No publisher, can not request!");
}

void BayeuxQueue::BayeuxQueueSubscription::cancel() {
    if (const std::shared_ptr<BayeuxQueue> alive = queue.lock()) {
        alive->cancel();
        return;
    }
    refuseWithoutPublisher("No publisher, can not cancel!");
}

BayeuxQueue::BayeuxQueue(std::string name) : name(std::move(name)) {
    KORVANE_LOG(logger, common::logTrace) << "Bayeux queue constructor: " << name << "_" << reinterpret_cast<unsigned long>(this);
}

BayeuxQueue::~BayeuxQueue() {
    std::unique_lock<std::mutex> lock(mutex);
    KORVANE_LOG(logger, common::logTrace) << "Bayeux queue destructor: " << name << "_" << reinterpret_cast<unsigned long>(this);
    try {
        doDone(lock);
    } catch (...) {
        // A subscriber that throws from onComplete must not take the process down with the queue.
    }
    if (lock.owns_lock()) {
        lock.unlock();
    }
    subscriber.reset();
    subscription.reset();
}

// Takes no queue lock: `promise` is never reassigned and its state has a lock of its
// own. The session asks for the future while it holds its own mutex, and the
// queue's end runs the session's continuation under the queue's mutex, so taking
// the queue's mutex here would order the two locks both ways.
Future<bool> BayeuxQueue::getFuture() { return promise.getFuture(); }

void BayeuxQueue::subscribe(std::shared_ptr<Subscriber> newSubscriber) {
    if (!newSubscriber) {
        throw std::invalid_argument("Null subscriber.");
    }
    std::unique_lock<std::mutex> lock(mutex);
    if (subscriber) {
        throw std::invalid_argument("Only one subscription allowed.");
    }
    demand = 0;
    subscription = std::make_shared<BayeuxQueueSubscription>(std::weak_ptr<BayeuxQueue>(shared_from_this()));
    const std::weak_ptr<reactive_streams::Subscription> handed = subscription;
    if (state == Failed) {
        // An ended queue never keeps its subscriber, so every later subscriber hears the end too.
        const std::exception_ptr storedError = error;
        lock.unlock();
        newSubscriber->onSubscribe(handed);
        newSubscriber->onError(storedError);
        return;
    }
    if (state == Done) {
        lock.unlock();
        newSubscriber->onSubscribe(handed);
        newSubscriber->onComplete();
        return;
    }
    subscriber = newSubscriber;
    lock.unlock();
    newSubscriber->onSubscribe(handed);
    lock.lock();
    deliver(lock);
}

void BayeuxQueue::setValue(std::unique_ptr<Message>&& message) {
    std::unique_lock<std::mutex> lock(mutex);
    KORVANE_LOG(logger, common::logTrace) << "setValue: " << name << "_" << reinterpret_cast<unsigned long>(this) << " " << common::mangledTypeName(typeid(*message));
    if (state == Done || state == Failed) {
        return;
    }
    messages.push_back(std::move(message));
    deliver(lock);
}

void BayeuxQueue::setError(std::exception_ptr&& failure) {
    std::unique_lock<std::mutex> lock(mutex);
    KORVANE_LOG(logger, common::logTrace) << "setError: " << name << "_" << reinterpret_cast<unsigned long>(this);
    if (state != Open) {
        return;
    }
    state = Failed;
    if (subscriber) {
        // A copy, so that a concurrent cancel cannot destroy the subscriber under the call.
        const std::shared_ptr<Subscriber> current = subscriber;
        lock.unlock();
        current->onError(failure);
        lock.lock();
    } else {
        error = std::move(failure);
    }
    promise.setValue(false);
}

void BayeuxQueue::done() {
    std::unique_lock<std::mutex> lock(mutex);
    doDone(lock);
}

void BayeuxQueue::doneWhenEmpty() {
    KORVANE_LOG(logger, common::logTrace) << "doneWhenEmpty: " << name << "_" << reinterpret_cast<unsigned long>(this);
    std::unique_lock<std::mutex> lock(mutex);
    if (state != Open) {
        return;
    }
    state = DoneWhenEmpty;
    deliver(lock);
}

std::uint64_t BayeuxQueue::bufferSize() {
    std::lock_guard<std::mutex> guard(mutex);
    return messages.size();
}

void BayeuxQueue::request(unsigned long n) {
    std::unique_lock<std::mutex> lock(mutex);
    if (n != 0) {
        const std::uint64_t headroom = std::numeric_limits<std::uint64_t>::max() - demand;
        demand = n > headroom ? std::numeric_limits<std::uint64_t>::max() : demand + n;
    }
    deliver(lock);
}

void BayeuxQueue::cancel() {
    std::unique_lock<std::mutex> lock(mutex);
    subscriberCancelled.store(true, std::memory_order_release);
    demand = 0;
    subscriber.reset();
    subscription.reset();
}

void BayeuxQueue::deliver(std::unique_lock<std::mutex>& lock) {
    if (delivering) {
        // The thread inside the loop picks up whatever the caller changed under the lock.
        return;
    }
    delivering = true;
    try {
        KORVANE_LOG(logger, common::logTrace) << "deliver: " << name << "_" << reinterpret_cast<unsigned long>(this) << ", " << static_cast<std::int32_t>(state) << ", " << demand
                               << ", " << messages.size();
        doDrainLoop(lock);
        checkComplete(lock);
        delivering = false;
    } catch (...) {
        // A throwing subscriber loses the message in flight and nothing else; the
        // next push or request drains again. The caller gets control back unlocked.
        if (!lock.owns_lock()) {
            lock.lock();
        }
        delivering = false;
        lock.unlock();
    }
}

void BayeuxQueue::doDrainLoop(std::unique_lock<std::mutex>& lock) {
    // Every condition is read afresh on each pass: any of them may change while the lock is released.
    while ((state == Open || state == DoneWhenEmpty) && subscriber && demand > 0 && !messages.empty()) {
        --demand;
        std::unique_ptr<Message> message = std::move(messages.front());
        messages.pop_front();
        KORVANE_LOG(logger, common::logTrace) << "onNext: " << name << "_" << reinterpret_cast<unsigned long>(this) << ", " << common::mangledTypeName(typeid(*message));
        // The copy keeps the subscriber alive through onNext even if it cancels meanwhile.
        std::shared_ptr<Subscriber> current = subscriber;
        lock.unlock();
        current->onNext(std::move(message));
        lock.lock();
        current.reset();
        message.reset();
    }
}

void BayeuxQueue::checkComplete(std::unique_lock<std::mutex>& lock) {
    if (state == DoneWhenEmpty && messages.empty()) {
        doDone(lock);
    }
}

void BayeuxQueue::doDone(std::unique_lock<std::mutex>& lock) {
    if (state == Done || state == Failed) {
        return;
    }
    state = Done;
    KORVANE_LOG(logger, common::logTrace) << "doDone: " << name << "_" << reinterpret_cast<unsigned long>(this);
    if (subscriber) {
        const std::shared_ptr<Subscriber> current = subscriber;
        lock.unlock();
        current->onComplete();
        lock.lock();
    }
    // The future's continuation runs here, on this thread, with `mutex` held.
    promise.setValue(true);
}

}  // namespace korvane::bayeux
