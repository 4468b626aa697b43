#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "korvane/frame/collectable.h"
#include "korvane/frame/future.h"
#include "korvane/frame/lazy_promise.h"
#include "korvane/frame/reactive_streams.h"
#include "korvane/frame/ring_queue.h"
#include "korvane/frame/transform_processor.h"
#include "korvane/export.h"

namespace korvane::reactive_streams {

// A publisher fed from outside through publish(), finish() and setError(). Values
// that meet no demand wait in a FIFO cache (bounded by maxCached, oldest dropped
// first) until the subscriber requests them. Must be owned by a std::shared_ptr:
// its subscription holds it weakly.
//
// Locking: one mutex guards every field. Calls to the subscriber and to `onFinished`
// are made with the mutex released; the subscriber, once set, stays until the
// publisher is destroyed, so onNext goes through a plain pointer (a caller keeps the
// publisher alive across its own call). The `delivering` flag keeps one
// thread at a time calling onNext, in the drain loop or in the direct hand-over:
// items published on other threads meanwhile wait in the cache for that thread,
// so onNext calls never overlap, each thread's items arrive in order and the end
// of the stream comes after the last item. `donePromise` is resolved with the
// mutex held, so its continuations must not call back into this publisher.
//
// Instead of a subscriber, one taker may collect the values (collectable.h): they then
// all wait in the cache, with no demand, the taker's `wake` is called under the mutex
// for the first value (or the end) since its last take, and the stream completes when
// the taker takes what a finish() left, so that the taker sees the end behind the last value.
template <class T, class F>
class KORVANE_EXPORT CachedValuePublisher : public PublisherAPI<T>,
                                            public Collectable<T>,
                                            public std::enable_shared_from_this<CachedValuePublisher<T, F>> {
public:
    enum class Status : std::int32_t { Active = 0, Finishing = 1, Completed = 2, Cancelled = 3, Failed = 4 };

    explicit CachedValuePublisher(F finished) : onFinished(std::move(finished)) {}

    CachedValuePublisher(const CachedValuePublisher&) = delete;
    CachedValuePublisher& operator=(const CachedValuePublisher&) = delete;

    // An unfinished stream ends as completed; undelivered cached values are dropped.
    // Nobody else can reach the publisher any more, so no lock is taken.
    ~CachedValuePublisher() override {
        if (status == Status::Active || status == Status::Finishing) {
            status = Status::Completed;
            donePromise.setValue(true);
            if (subscriber) {
                subscriber->onComplete();
            }
            doNotifyFinished();
        }
        subscriber.reset();
        subscription.reset();
    }

    // Hands the value straight to a subscriber with demand when nothing waits before
    // it; otherwise caches it and drains what demand allows.
    void publish(T&& value) {
        std::unique_lock<std::mutex> lock(mutex);
        if (status > Status::Finishing) {
            return;
        }
        if (taker == Taker::collecting) {
            doCache(std::move(value));
            doWakeTaker();
            return;
        }
        if (subscriber && demand != 0 && cache.empty() && !delivering) {
            --demand;
            SubscriberAPI<T>* target = subscriber.get();
            // Held through the call so that no other thread's item overtakes or overlaps this one.
            delivering = true;
            lock.unlock();
            try {
                target->onNext(std::move(value));
            } catch (...) {
                lock.lock();
                delivering = false;
                throw;
            }
            lock.lock();
            delivering = false;
            // What other threads cached meanwhile, and a finish() that came during the call.
            doDeliver(lock);
            return;
        }
        doCache(std::move(value));
        doDeliver(lock);
    }

    // Completes the stream once the cache has drained.
    void finish() {
        std::unique_lock<std::mutex> lock(mutex);
        if (status != Status::Active) {
            return;
        }
        status = Status::Finishing;
        if (taker == Taker::collecting) {
            doWakeTaker();
            return;
        }
        doDeliver(lock);
    }

    // Fails the stream. The done future still yields false, not the error.
    void setError(std::exception_ptr failure) {
        std::unique_lock<std::mutex> lock(mutex);
        if (status != Status::Active) {
            return;
        }
        status = Status::Failed;
        donePromise.setValue(false);
        std::shared_ptr<SubscriberAPI<T>> target = subscriber;
        if (!target) {
            error = failure;
        }
        doWakeTaker();
        lock.unlock();
        if (target) {
            target->onError(failure);
        }
        doNotifyFinished();
    }

    void subscribe(std::shared_ptr<SubscriberAPI<T>> newSubscriber) override {
        std::unique_lock<std::mutex> lock(mutex);
        if (subscriber || taker != Taker::none) {
            throw std::invalid_argument("Only one subscription allowed.");
        }
        subscription = std::make_shared<CachedValueSubscription>(this, this->shared_from_this());
        subscriber = newSubscriber;
        std::weak_ptr<Subscription> handle(subscription);
        lock.unlock();
        newSubscriber->onSubscribe(handle);
        lock.lock();
        if (status == Status::Failed) {
            std::exception_ptr failure = error;
            lock.unlock();
            newSubscriber->onError(failure);
        } else if (status == Status::Completed) {
            lock.unlock();
            newSubscriber->onComplete();
        } else {
            doDeliver(lock);
        }
    }

    Future<bool> getFuture() override {
        std::lock_guard<std::mutex> guard(mutex);
        return donePromise.getFuture();
    }

    void collect(std::function<void()> wake) override {
        std::lock_guard<std::mutex> guard(mutex);
        if (subscriber || taker != Taker::none) {
            throw std::invalid_argument("Only one subscription allowed.");
        }
        taker = Taker::collecting;
        takerWake = std::move(wake);
        if (!cache.empty() || status != Status::Active) {
            doWakeTaker();
        }
    }

    // Who reads the values: nobody yet, a subscriber, or a taker that collects them (or did). An
    // answer other than `none` never changes.
    enum class Reader : std::uint8_t { none, subscriber, collector };
    Reader reader() {
        std::lock_guard<std::mutex> guard(mutex);
        return subscriber ? Reader::subscriber : taker != Taker::none ? Reader::collector : Reader::none;
    }

    // The end is told once; the taker is then done, and its wake dropped.
    typename Collectable<T>::Ending takeAll(common::RingQueue<T>& into) override {
        std::function<void()> dropped;  // destroyed after the lock is released
        std::unique_lock<std::mutex> lock(mutex);
        if (taker != Taker::collecting) {
            return {};
        }
        takerWoken = false;
        if (into.empty()) {
            into.swap(cache);
        }
        for (; !cache.empty(); cache.pop_front()) {
            into.push_back(std::move(cache.front()));
        }
        if (status == Status::Finishing) {
            doFinishing(lock);
        }
        if (status != Status::Completed && status != Status::Failed) {
            return {};
        }
        taker = Taker::gone;
        dropped.swap(takerWake);
        return {true, status == Status::Failed ? error : nullptr};
    }

    void stopCollecting() override {
        std::function<void()> dropped;  // destroyed after the lock is released
        std::unique_lock<std::mutex> lock(mutex);
        if (taker != Taker::collecting) {
            return;
        }
        taker = Taker::gone;
        dropped.swap(takerWake);
        if (status != Status::Active && status != Status::Finishing) {
            return;
        }
        status = Status::Cancelled;
        donePromise.setValue(false);
        lock.unlock();
        doNotifyFinished();
    }

    // The most values the cache keeps; all ones (the default) means no limit.
    void setMaxCached(std::uint64_t limit) {
        std::lock_guard<std::mutex> guard(mutex);
        maxCached = limit;
    }

private:
    enum class Taker : std::uint8_t { none, collecting, gone };

    // Does nothing once the publisher is gone: `owner` is used only while `self` locks.
    class CachedValueSubscription : public Subscription {
    public:
        CachedValueSubscription(CachedValuePublisher* publisher, std::weak_ptr<CachedValuePublisher> self)
            : owner(publisher), alive(std::move(self)) {}

        void request(unsigned long n) override {
            std::shared_ptr<CachedValuePublisher> held = alive.lock();
            if (!held) {
                return;
            }
            std::unique_lock<std::mutex> lock(owner->mutex);
            owner->demand = addDemand(owner->demand, n);
            owner->doDeliver(lock);
        }

        // Cached entries stay until the publisher is destroyed.
        void cancel() override {
            std::shared_ptr<CachedValuePublisher> held = alive.lock();
            if (!held) {
                return;
            }
            std::unique_lock<std::mutex> lock(owner->mutex);
            if (owner->status != Status::Active && owner->status != Status::Finishing) {
                return;
            }
            owner->status = Status::Cancelled;
            owner->donePromise.setValue(false);
            lock.unlock();
            owner->doNotifyFinished();
        }

    private:
        CachedValuePublisher* owner;
        std::weak_ptr<CachedValuePublisher> alive;
    };

    // Entered with the lock held: the oldest values go first past maxCached.
    void doCache(T&& value) {
        while (!cache.empty() && cache.size() >= maxCached) {
            cache.pop_front();
        }
        cache.push_back(std::move(value));
    }

    // Entered with the lock held: the first value or end since the taker's last take wakes it.
    void doWakeTaker() {
        if (!takerWoken && takerWake) {
            takerWoken = true;
            takerWake();
        }
    }

    // Entered with the lock held. Only one thread at a time runs the drain; a call
    // that finds it running (another thread, or onNext calling back in) leaves its
    // items to that drain. An exception from the subscriber passes on with the lock
    // taken again and the flag cleared.
    void doDeliver(std::unique_lock<std::mutex>& lock) {
        if (delivering) {
            return;
        }
        delivering = true;
        try {
            doDrain(lock);
        } catch (...) {
            if (!lock.owns_lock()) {
                lock.lock();
            }
            delivering = false;
            throw;
        }
        delivering = false;
    }

    // Entered with the lock held and `delivering` set; returns with the lock held.
    void doDrain(std::unique_lock<std::mutex>& lock) {
        while (status <= Status::Finishing && subscriber && demand != 0 && !cache.empty()) {
            --demand;
            T value = std::move(cache.front());
            cache.pop_front();
            SubscriberAPI<T>* target = subscriber.get();
            lock.unlock();
            target->onNext(std::move(value));
            lock.lock();
        }
        if (status == Status::Finishing && cache.empty()) {
            doFinishing(lock);
        }
    }

    // Entered with the lock held; returns with it held.
    void doFinishing(std::unique_lock<std::mutex>& lock) {
        if (status >= Status::Completed) {
            return;
        }
        status = Status::Completed;
        donePromise.setValue(true);
        std::shared_ptr<SubscriberAPI<T>> target = subscriber;
        lock.unlock();
        if (target) {
            target->onComplete();
        }
        doNotifyFinished();
        lock.lock();
    }

    // Called with no lock held. An empty callback is allowed and means "nobody to tell".
    void doNotifyFinished() {
        if constexpr (std::is_constructible_v<bool, F&>) {
            if (!static_cast<bool>(onFinished)) {
                return;
            }
        }
        onFinished();
    }

    // What publish() reads on its direct hand-over comes first, beside the mutex, so that
    // the hand-over touches as few cache lines of a publisher as it can.
    std::mutex mutex;
    Status status = Status::Active;
    bool delivering = false;
    Taker taker = Taker::none;
    bool takerWoken = false;
    std::uint64_t demand = 0;
    std::shared_ptr<SubscriberAPI<T>> subscriber;
    common::RingQueue<T> cache;
    std::function<void()> takerWake;
    std::uint64_t maxCached = std::numeric_limits<std::uint64_t>::max();
    F onFinished;
    LazyPromise<bool> donePromise;
    std::exception_ptr error;
    std::shared_ptr<CachedValueSubscription> subscription;
};

}  // namespace korvane::reactive_streams
