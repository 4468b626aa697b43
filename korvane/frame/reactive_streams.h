#pragma once

// The stream interfaces. A publisher owns its subscriber by shared_ptr; a
// subscriber sees its subscription only through a weak_ptr; the subscription
// belongs to the publisher side. Calling order on a subscriber: onSubscribe, any
// number of onNext, then at most one of onComplete and onError. Each end exposes
// how the stream ended as a Future<bool>.
//
// Threading: calls may come in on any thread. An implementation never calls
// across a stream boundary with its own lock held, so a peer may call straight
// back in on the same thread.

#include <exception>
#include <memory>

#include "korvane/frame/future.h"
#include "korvane/export.h"

namespace korvane::reactive_streams {

class KORVANE_EXPORT Subscription {
public:
    Subscription();
    virtual ~Subscription();
    virtual void request(unsigned long n) = 0;
    virtual void cancel() = 0;
};

class KORVANE_EXPORT Subscriber {
public:
    Subscriber();
    virtual ~Subscriber();
    virtual void onSubscribe(std::weak_ptr<Subscription> subscription) = 0;
    virtual void onComplete() = 0;
    virtual Future<bool> getFuture() = 0;
};

class KORVANE_EXPORT Publisher {
public:
    Publisher();
    virtual ~Publisher();
    virtual Future<bool> getFuture() = 0;
};

class KORVANE_EXPORT Processor : public Subscriber, public Publisher {
public:
    Processor();
    ~Processor() override;
    virtual void onError(std::exception_ptr error) = 0;
};

template <class T>
class KORVANE_EXPORT SubscriberAPI : public Subscriber {
public:
    virtual void onNext(T&& value) = 0;
    virtual void onError(std::exception_ptr error) = 0;
};

template <class T>
class KORVANE_EXPORT PublisherAPI : public Publisher {
public:
    virtual void subscribe(std::shared_ptr<SubscriberAPI<T>> subscriber) = 0;
};

template <class A, class B>
class KORVANE_EXPORT ProcessorAPI : public SubscriberAPI<A>, public PublisherAPI<B>, public Processor {};

}  // namespace korvane::reactive_streams
