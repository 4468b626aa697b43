#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <utility>

#include "korvane/frame/future.h"
#include "korvane/frame/reactive_streams.h"
#include "korvane/export.h"

namespace korvane::reactive_streams {

// Publishes exactly one value, then completes: the first request hands over the
// value and onComplete in one call.
//
// Threading: no lock at all. A one-shot publisher belongs to one thread at a time
// (a response body is subscribed and drained by the host's HTTP layer).
template <class T>
class KORVANE_EXPORT OneShotPublisher : public PublisherAPI<T> {
public:
    explicit OneShotPublisher(T initialValue)
        : value(std::move(initialValue)), subscription(std::make_shared<OneShotSubscription>(this)) {}

    OneShotPublisher(const OneShotPublisher&) = delete;
    OneShotPublisher& operator=(const OneShotPublisher&) = delete;

    void subscribe(std::shared_ptr<SubscriberAPI<T>> newSubscriber) override {
        if (subscriber) {
            throw std::invalid_argument("Only one subscription allowed.");
        }
        subscriber = std::move(newSubscriber);
        subscriber->onSubscribe(std::weak_ptr<Subscription>(subscription));
        doFire();
    }

    // Whatever the stream's state: a one-shot publisher never fails.
    Future<bool> getFuture() override { return makeReadyFuture<bool>(true); }

private:
    // Owned by the publisher and handed out only as a weak pointer.
    class OneShotSubscription : public Subscription {
    public:
        explicit OneShotSubscription(OneShotPublisher* owner) : publisher(owner) {}

        void request(unsigned long n) override {
            demand += n;
            publisher->doFire();
        }

        void cancel() override {
            cancelled = true;
            publisher->finished = true;
        }

        OneShotPublisher* publisher;
        bool cancelled = false;
        std::uint64_t demand = 0;
    };

    // Hands over the value once there is a subscriber that asked for it. `finished`
    // is set first, so a request made from inside onNext finds nothing left.
    void doFire() {
        if (!subscriber || finished || subscription->cancelled || subscription->demand == 0) {
            return;
        }
        finished = true;
        subscriber->onNext(std::move(value));
        subscriber->onComplete();
    }

    T value;
    std::shared_ptr<SubscriberAPI<T>> subscriber;
    std::shared_ptr<OneShotSubscription> subscription;
    bool finished = false;
};

}  // namespace korvane::reactive_streams
