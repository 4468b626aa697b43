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
#include "korvane/frame/lazy_promise.h"
#include "korvane/frame/reactive_streams.h"
#include "korvane/export.h"

namespace korvane::reactive_streams {

// Adds `n` to an outstanding demand, sticking at all ones instead of wrapping.
inline std::uint64_t addDemand(std::uint64_t demand, std::uint64_t n) noexcept {
    std::uint64_t sum = 0;
    return __builtin_add_overflow(demand, n, &sum) ? std::numeric_limits<std::uint64_t>::max() : sum;
}

// Maps every item of an upstream of A into one item of B for a single downstream.
//
// Locking: one mutex guards every field. `transform` runs under it, so it must not
// call back into this processor; every call to upstream or downstream is made with
// the mutex released and it is taken again afterwards. Demand passes straight
// through: the whole outstanding downstream demand is requested from upstream.
template <class A, class B>
class KORVANE_EXPORT TransformProcessor : public ProcessorAPI<A, B> {
public:
    enum class Status : std::int32_t { Active = 0, Completed = 1, Cancelled = 2, Failed = 3 };

    explicit TransformProcessor(std::function<B(A&&)> transformFunction)
        : transform(std::move(transformFunction)), subscription(std::make_shared<TransformSubscription>(this)) {}

    TransformProcessor(const TransformProcessor&) = delete;
    TransformProcessor& operator=(const TransformProcessor&) = delete;

    // An unfinished stream ends as completed.
    ~TransformProcessor() override {
        std::unique_lock<std::mutex> lock(mutex);
        doComplete(lock);
    }

    void onSubscribe(std::weak_ptr<Subscription> newUpstream) override {
        std::unique_lock<std::mutex> lock(mutex);
        upstream = std::move(newUpstream);
        // A subscription that arrives after a cancellation is left running: the
        // cancel step only acts on an active stream.
        if (status == Status::Active) {
            doRequestUpstream(lock);
        }
    }

    void subscribe(std::shared_ptr<SubscriberAPI<B>> newSubscriber) override {
        std::unique_lock<std::mutex> lock(mutex);
        if (subscriber) {
            throw std::invalid_argument("Only one subscription is supported");
        }
        subscriber = newSubscriber;
        Status seen = status;
        std::exception_ptr seenError = error;
        lock.unlock();
        newSubscriber->onSubscribe(std::weak_ptr<Subscription>(subscription));
        if (seen == Status::Completed) {
            newSubscriber->onComplete();
        } else if (seen == Status::Failed) {
            newSubscriber->onError(seenError);
        }
    }

    virtual void request(unsigned long n) {
        std::unique_lock<std::mutex> lock(mutex);
        if (n != 0) {
            demand = addDemand(demand, n);
        }
        doRequestUpstream(lock);
    }

    void onNext(A&& value) override {
        std::unique_lock<std::mutex> lock(mutex);
        if (!subscriber) {
            return;
        }
        std::shared_ptr<SubscriberAPI<B>> target = subscriber;
        B transformed = transform(std::move(value));
        // Unchecked: an item beyond demand wraps the counter.
        --demand;
        lock.unlock();
        target->onNext(std::move(transformed));
    }

    void onComplete() override {
        std::unique_lock<std::mutex> lock(mutex);
        doComplete(lock);
    }

    void onError(std::exception_ptr failure) override {
        std::unique_lock<std::mutex> lock(mutex);
        if (status != Status::Active) {
            return;
        }
        status = Status::Failed;
        std::shared_ptr<SubscriberAPI<B>> target = std::move(subscriber);
        if (!target) {
            error = failure;
        }
        lock.unlock();
        if (target) {
            target->onError(failure);
        }
        donePromise.setError(failure);
    }

    Future<bool> getFuture() override {
        std::lock_guard<std::mutex> guard(mutex);
        return donePromise.getFuture();
    }

private:
    // Owned by the processor and handed downstream only as a weak pointer, so it
    // never outlives the processor it points to.
    class TransformSubscription : public Subscription {
    public:
        explicit TransformSubscription(TransformProcessor* owner) : processor(owner) {}
        void request(unsigned long n) override { processor->request(n); }
        void cancel() override {
            std::unique_lock<std::mutex> lock(processor->mutex);
            processor->doCancel(lock);
        }

    private:
        TransformProcessor* processor;
    };

    // Entered with the lock held; asks upstream for the whole outstanding demand.
    void doRequestUpstream(std::unique_lock<std::mutex>& lock) {
        std::shared_ptr<Subscription> source = upstream.lock();
        if (source && status == Status::Active && demand != 0) {
            std::uint64_t wanted = demand;
            lock.unlock();
            source->request(wanted);
            lock.lock();
        }
    }

    // Entered with the lock held; returns with it released.
    void doComplete(std::unique_lock<std::mutex>& lock) {
        if (status != Status::Active) {
            return;
        }
        status = Status::Completed;
        std::shared_ptr<SubscriberAPI<B>> target = std::move(subscriber);
        lock.unlock();
        if (target) {
            target->onComplete();
        }
        donePromise.setValue(true);
    }

    // Entered with the lock held; returns with it released. The downstream that
    // cancelled is told so by onComplete.
    void doCancel(std::unique_lock<std::mutex>& lock) {
        if (status != Status::Active) {
            return;
        }
        status = Status::Cancelled;
        std::shared_ptr<Subscription> source = upstream.lock();
        std::shared_ptr<SubscriberAPI<B>> target = std::move(subscriber);
        lock.unlock();
        if (source) {
            source->cancel();
        }
        if (target) {
            target->onComplete();
        }
        donePromise.setValue(false);
    }

    std::mutex mutex;
    std::shared_ptr<SubscriberAPI<B>> subscriber;
    std::function<B(A&&)> transform;
    LazyPromise<bool> donePromise;
    std::shared_ptr<Subscription> subscription;
    std::weak_ptr<Subscription> upstream;
    std::exception_ptr error;
    std::uint64_t demand = 0;
    Status status = Status::Active;
};

}  // namespace korvane::reactive_streams
