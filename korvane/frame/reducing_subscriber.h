#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "korvane/frame/future.h"
#include "korvane/frame/reactive_streams.h"
#include "korvane/export.h"

namespace korvane::reactive_streams {

// Folds every item of a stream into one accumulated value, delivered through the
// future that `reduce` returns. Asks for unlimited demand once, on subscription.
//
// Locking: one mutex guards every field. `reducer` runs under it, so it must not
// call back into this subscriber. Upstream is requested and cancelled with the
// mutex released. Both promises are resolved with the mutex held, so their
// continuations must not call back into this subscriber either.
template <class A, class B>
class KORVANE_EXPORT ReducingSubscriber : public SubscriberAPI<A> {
public:
    enum class Status : std::int32_t { Active = 0, Completed = 1, Cancelled = 2, Failed = 3 };

    ReducingSubscriber(std::function<B(A&&, B&&)> reduceFunction, B initialValue)
        : reducer(std::move(reduceFunction)), initial(std::move(initialValue)), accumulator(initial) {}

    ReducingSubscriber(const ReducingSubscriber&) = delete;
    ReducingSubscriber& operator=(const ReducingSubscriber&) = delete;

    ~ReducingSubscriber() override {
        std::unique_lock<std::mutex> lock(mutex);
        doCancel(lock);
        reducer = nullptr;
    }

    void onSubscribe(std::weak_ptr<Subscription> subscription) override {
        std::unique_lock<std::mutex> lock(mutex);
        upstream = std::move(subscription);
        std::shared_ptr<Subscription> source = upstream.lock();
        if (!source) {
            throw std::runtime_error("Subscription went away!");
        }
        lock.unlock();
        source->request(std::numeric_limits<unsigned long>::max());
    }

    // A reducer that throws, or is empty, cancels the reduction; the exception is
    // not passed on.
    void onNext(A&& value) override {
        std::unique_lock<std::mutex> lock(mutex);
        if (status != Status::Active) {
            return;
        }
        try {
            accumulator = reducer(std::move(value), std::move(accumulator));
        } catch (...) {
            doCancel(lock);
        }
    }

    void onComplete() override {
        std::lock_guard<std::mutex> guard(mutex);
        if (status != Status::Active) {
            return;
        }
        status = Status::Completed;
        if (resultPromise) {
            resultPromise->setValue(std::move(accumulator));
        }
        if (donePromise) {
            donePromise->setValue(true);
        }
    }

    void onError(std::exception_ptr failure) override {
        std::lock_guard<std::mutex> guard(mutex);
        if (status != Status::Active) {
            return;
        }
        status = Status::Failed;
        // Kept for a later getFuture() or reduce(), whether or not a promise takes it now.
        error = failure;
        if (resultPromise) {
            resultPromise->setError(failure);
        }
        if (donePromise) {
            donePromise->setError(failure);
        }
    }

    virtual void cancel() {
        std::unique_lock<std::mutex> lock(mutex);
        doCancel(lock);
    }

    // A finished reduction answers at once; an active one replaces its done promise
    // (an earlier future then fails as its promise dies).
    Future<bool> getFuture() override {
        std::lock_guard<std::mutex> guard(mutex);
        switch (status) {
            case Status::Completed:
                return makeReadyFuture<bool>(true);
            case Status::Cancelled:
                return makeReadyFuture<bool>(false);
            case Status::Failed:
                return makeErrorFuture<bool>(std::make_exception_ptr(error));
            case Status::Active:
                break;
        }
        donePromise = std::make_unique<Promise<bool>>();
        return donePromise->getFuture();
    }

private:
    template <class X, class Y>
    friend Future<Y> reduce(std::shared_ptr<PublisherAPI<X>> publisher, std::function<Y(X&&, Y&&)> reducer,
                            Y initial);

    // Entered with the lock held. A cancelled reduction yields what it has, as a value.
    void doCancel(std::unique_lock<std::mutex>& lock) {
        if (status != Status::Active) {
            return;
        }
        status = Status::Cancelled;
        std::shared_ptr<Subscription> source = upstream.lock();
        if (source) {
            lock.unlock();
            source->cancel();
            lock.lock();
        }
        if (resultPromise) {
            resultPromise->setValue(std::move(accumulator));
        }
        if (donePromise) {
            donePromise->setValue(false);
        }
    }

    // Called by reduce() right after subscribing: the stream may already be over.
    Future<B> doTakeResult() {
        std::lock_guard<std::mutex> guard(mutex);
        switch (status) {
            case Status::Active:
                break;
            case Status::Completed:
            case Status::Cancelled:
                return makeReadyFuture<B>(std::move(accumulator));
            case Status::Failed:
                return makeErrorFuture<B>(std::make_exception_ptr(error));
        }
        resultPromise = std::make_unique<Promise<B>>();
        return resultPromise->getFuture();
    }

    std::mutex mutex;
    std::unique_ptr<Promise<B>> resultPromise;
    std::unique_ptr<Promise<bool>> donePromise;
    std::function<B(A&&, B&&)> reducer;
    const B initial;
    B accumulator;
    std::exception_ptr error;
    std::weak_ptr<Subscription> upstream;
    Status status = Status::Active;
};

// Subscribes a ReducingSubscriber to `publisher` and returns the future of the
// accumulated value. A publisher may run its whole stream inside subscribe, in
// which case the future is already resolved.
template <class A, class B>
Future<B> reduce(std::shared_ptr<PublisherAPI<A>> publisher, std::function<B(A&&, B&&)> reducer, B initial) {
    auto subscriber = std::make_shared<ReducingSubscriber<A, B>>(std::move(reducer), std::move(initial));
    if (publisher) {
        publisher->subscribe(subscriber);
    }
    return subscriber->doTakeResult();
}

}  // namespace korvane::reactive_streams
