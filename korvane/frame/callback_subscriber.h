#pragma once

#include <atomic>
#include <exception>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <utility>

#include "korvane/frame/future.h"
#include "korvane/frame/lazy_promise.h"
#include "korvane/frame/reactive_streams.h"
#include "korvane/export.h"

namespace korvane::reactive_streams {

// Hands every item to a callback. Asks for unlimited demand once, on subscription.
//
// Locking: one mutex guards `upstream` and `donePromise`, and every write of `finished`;
// onNext reads `finished` without it (an item that races the end of the stream may or
// may not be handed over, with the lock as without it). The callback runs with no lock
// held, on the publisher's thread, and is serialised only as far as the publisher
// serialises onNext. `donePromise` is resolved with the mutex held
// (in onComplete and onError), so a continuation on getFuture() must not call back
// into this subscriber.
template <class T>
class KORVANE_EXPORT CallbackSubscriber : public SubscriberAPI<T> {
public:
    explicit CallbackSubscriber(std::function<void(T&&)> onItem) : callback(std::move(onItem)) {}

    CallbackSubscriber(const CallbackSubscriber&) = delete;
    CallbackSubscriber& operator=(const CallbackSubscriber&) = delete;

    ~CallbackSubscriber() override { cancel(); }

    void onSubscribe(std::weak_ptr<Subscription> subscription) override {
        std::unique_lock<std::mutex> lock(mutex);
        upstream = std::move(subscription);
        std::shared_ptr<Subscription> source = upstream.lock();
        if (!finished && source) {
            lock.unlock();
            source->request(std::numeric_limits<unsigned long>::max());
        }
    }

    void onNext(T&& value) override {
        if (!finished.load(std::memory_order_acquire)) {
            callback(std::move(value));
        }
    }

    void onComplete() override {
        std::lock_guard<std::mutex> guard(mutex);
        if (!finished) {
            finished = true;
            donePromise.setValue(true);
        }
    }

    void onError(std::exception_ptr error) override {
        std::lock_guard<std::mutex> guard(mutex);
        if (!finished) {
            finished = true;
            donePromise.setError(error);
        }
    }

    // Stops the stream: the future yields false and upstream is cancelled, with
    // the mutex released around that call.
    void cancel() {
        std::unique_lock<std::mutex> lock(mutex);
        if (finished) {
            return;
        }
        finished = true;
        donePromise.setValue(false);
        std::shared_ptr<Subscription> source = upstream.lock();
        if (source) {
            lock.unlock();
            source->cancel();
        }
    }

    Future<bool> getFuture() override {
        std::lock_guard<std::mutex> guard(mutex);
        return donePromise.getFuture();
    }

private:
    std::mutex mutex;
    LazyPromise<bool> donePromise;
    std::function<void(T&&)> callback;
    std::weak_ptr<Subscription> upstream;
    std::atomic<bool> finished{false};
};

}  // namespace korvane::reactive_streams
