#pragma once

// Helpers shared by the session tests: a subscriber that records what a transport
// would see, a session that records the notices the routing core passes on, and
// message builders. All are safe to use from several threads.

#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "korvane/codec/messages.h"
#include "korvane/codec/routing_interfaces.h"
#include "korvane/frame/data_buffer.h"
#include "korvane/frame/future.h"
#include "korvane/frame/reactive_streams.h"

namespace korvane::bayeux::testing {

inline std::unique_ptr<PublishRequest> makePublish(const std::string& channel, const std::string& data,
                                                   const std::string& clientId = "publisher") {
    auto request = std::make_unique<PublishRequest>(channel);
    request->data = std::make_shared<common::DataBuffer>(data);
    request->clientId = clientId;
    return request;
}

// Subscribes with a demand of `initialDemand` (unlimited by default) and keeps every item and event.
template <class T>
class Recorder : public reactive_streams::SubscriberAPI<T> {
public:
    explicit Recorder(unsigned long initialDemand = std::numeric_limits<unsigned long>::max())
        : initialDemand(initialDemand) {}

    void onSubscribe(std::weak_ptr<reactive_streams::Subscription> subscription) override {
        {
            std::lock_guard<std::mutex> guard(mutex);
            upstream = subscription;
        }
        if (initialDemand != 0) {
            request(initialDemand);
        }
    }
    void onNext(T&& value) override {
        std::lock_guard<std::mutex> guard(mutex);
        items.push_back(std::move(value));
    }
    void onError(std::exception_ptr) override {
        std::lock_guard<std::mutex> guard(mutex);
        ++errors;
    }
    void onComplete() override {
        std::lock_guard<std::mutex> guard(mutex);
        ++completions;
    }
    Future<bool> getFuture() override { return makeReadyFuture(true); }

    void request(unsigned long n) {
        std::shared_ptr<reactive_streams::Subscription> source;
        {
            std::lock_guard<std::mutex> guard(mutex);
            source = upstream.lock();
        }
        if (source) {
            source->request(n);
        }
    }
    std::size_t size() {
        std::lock_guard<std::mutex> guard(mutex);
        return items.size();
    }
    int completionCount() {
        std::lock_guard<std::mutex> guard(mutex);
        return completions;
    }
    // Moves the items out; call once the producers have stopped.
    std::vector<T> take() {
        std::lock_guard<std::mutex> guard(mutex);
        return std::move(items);
    }
    // Gives access to the items under the recorder's lock.
    template <class Visit>
    void inspect(Visit&& visit) {
        std::lock_guard<std::mutex> guard(mutex);
        visit(items);
    }

private:
    std::mutex mutex;
    const unsigned long initialDemand;
    std::weak_ptr<reactive_streams::Subscription> upstream;
    std::vector<T> items;
    int errors = 0;
    int completions = 0;
};

using StreamRecorder = Recorder<std::unique_ptr<Message>>;
using LocalRecorder = Recorder<std::shared_ptr<const PublishRequest>>;

// Records the subscribe and unsubscribe notices that reach it, and every publish.
class NoticeSpy : public BayeuxSession {
public:
    explicit NoticeSpy(std::string id = "spy") : id(std::move(id)) {}

    std::shared_ptr<Context> getContext() const override { return nullptr; }
    std::string getId() const override { return id; }
    void deliver(const std::vector<std::string>&, const std::shared_ptr<const PublishRequest>& message) override {
        std::lock_guard<std::mutex> guard(mutex);
        publishes.push_back(message);
    }
    void deliver(const std::shared_ptr<const SubscribeRequest>& message) override {
        std::lock_guard<std::mutex> guard(mutex);
        subscribed.push_back(message->subscription);
    }
    void deliver(const std::shared_ptr<const UnsubscribeRequest>& message) override {
        std::lock_guard<std::mutex> guard(mutex);
        unsubscribed.push_back(message->subscription);
    }

    std::mutex mutex;
    const std::string id;
    std::vector<std::shared_ptr<const PublishRequest>> publishes;
    std::vector<std::string> subscribed;
    std::vector<std::string> unsubscribed;
};

}  // namespace korvane::bayeux::testing
