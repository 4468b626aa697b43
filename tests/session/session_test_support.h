#pragma once

// Helpers shared by the session and protocol-service tests: a subscriber that records what a
// transport or local consumer sees, a session that records what the routing core passes on,
// a message builder and a manual clock. All but the clock are safe to use from several threads.

#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>

#include "korvane/codec/messages.h"
#include "korvane/codec/routing_interfaces.h"
#include "korvane/frame/manual_timer_backend.h"
#include "korvane/routing/bayeux_queue.h"
#include "korvane/routing/bayeux_server.h"

namespace korvane::bayeux::testing {

using namespace std::chrono_literals;
using Texts = std::vector<std::string>;

inline std::unique_ptr<PublishRequest> makePublish(const std::string& channel, const std::string& data,
                                                   const std::string& clientId = "publisher") {
    auto request = std::make_unique<PublishRequest>(channel);
    request->data = std::make_shared<common::DataBuffer>(data);
    request->clientId = clientId;
    return request;
}

// Advice as "<reconnect>/<interval>/<timeout>", or "none".
inline std::string describe(const std::shared_ptr<BayeuxAdvice>& advice) {
    return advice ? std::to_string(advice->reconnect) + "/" + std::to_string(advice->interval) + "/" +
                        std::to_string(advice->timeout)
                  : "none";
}

// One stream item as text: its data for a message; "response:<id>" for a connect response,
// followed by " failed" if it failed and by its advice if it has any.
inline std::string describe(const Message& message) {
    if (auto response = dynamic_cast<const ConnectResponse*>(&message)) {
        return "response:" + response->id + (response->successful ? "" : " failed") +
               (response->advice ? " advice:" + describe(response->advice) : "");
    }
    auto publish = dynamic_cast<const PublishRequest*>(&message);
    return publish ? publish->data->str() : "?";
}

// Installs a manual clock for its own lifetime.
struct ManualClock {
    explicit ManualClock(long long startTick = 0)
        : backend(std::make_shared<common::ManualTimerBackend>(startTick)),
          previous(common::installTimerBackend(backend)) {}
    ~ManualClock() { common::installTimerBackend(previous); }
    common::ManualTimerBackend* operator->() const { return backend.get(); }

    const std::shared_ptr<common::ManualTimerBackend> backend;
    const std::shared_ptr<common::TimerBackend> previous;
};

// Subscribes with a demand of `initialDemand` and keeps every item and event.
template <class T>
class Recorder : public reactive_streams::SubscriberAPI<T> {
public:
    explicit Recorder(unsigned long initialDemand) : initialDemand(initialDemand) {}

    void onSubscribe(std::weak_ptr<reactive_streams::Subscription> subscription) override {
        lock(), upstream = subscription;
        if (initialDemand != 0) {
            request(initialDemand);
        }
    }
    void onNext(T&& value) override { lock(), items.push_back(std::move(value)); }
    void onError(std::exception_ptr) override { lock(), ++errors, ended.notify_all(); }
    void onComplete() override { lock(), ++completions, ended.notify_all(); }
    Future<bool> getFuture() override { return makeReadyFuture(true); }

    void request(unsigned long n) {
        if (auto source = (lock(), upstream.lock())) {
            source->request(n);
        }
    }
    std::size_t size() { return lock(), items.size(); }
    int completionCount() { return lock(), completions; }
    // A connect still held: nothing carried, not ended.
    bool isHeld() { return lock(), items.empty() && completions == 0 && errors == 0; }
    bool waitCompleted(std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> guard(mutex);
        return ended.wait_for(guard, limit, [this] { return completions > 0; });
    }
    // Every item described, in arrival order.
    Texts seen() {
        auto guard = lock();
        Texts texts;
        for (const auto& item : items) {
            texts.push_back(describe(*item));
        }
        return texts;
    }
    // The item at `index` as `U`, or null if missing or of another type; it lives as long as the recorder.
    template <class U>
    const U* at(std::size_t index) {
        return lock(), index < items.size() ? dynamic_cast<const U*>(items[index].get()) : nullptr;
    }
    // Whether the item at `index` is there and null.
    bool isNullAt(std::size_t index) { return lock(), index < items.size() && !items[index]; }

private:
    // The guard holds `mutex` to the end of the full expression: `lock(), expr` runs expr under it.
    std::unique_lock<std::mutex> lock() { return std::unique_lock<std::mutex>(mutex); }

    std::mutex mutex;
    std::condition_variable ended;
    const unsigned long initialDemand;
    std::weak_ptr<reactive_streams::Subscription> upstream;
    std::vector<T> items;
    int errors = 0;
    int completions = 0;
};

using StreamRecorder = Recorder<std::unique_ptr<Message>>;

template <class Item>  // only named in decltype: the item type of a stream
Item itemOf(const reactive_streams::PublisherAPI<Item>*);

// Subscribes a new recorder with a demand of `demand` (unlimited by default).
template <class Publisher>
auto watch(const std::shared_ptr<Publisher>& publisher, unsigned long demand = ~0ul) {
    auto recorder = std::make_shared<Recorder<decltype(itemOf(publisher.get()))>>(demand);
    publisher->subscribe(recorder);
    return recorder;
}

// Records the subscribe and unsubscribe notices that reach it, and every publish, after
// running `onPublish` if there is one.
class NoticeSpy : public BayeuxSession {
public:
    explicit NoticeSpy(std::function<void()> onPublish = nullptr) : onPublish(std::move(onPublish)) {}
    std::shared_ptr<Context> getContext() const override { return nullptr; }
    std::string getId() const override { return "spy"; }
    void deliver(const std::vector<std::string>&, const std::shared_ptr<const PublishRequest>& message) override {
        if (onPublish) {
            onPublish();
        }
        record(publishes, message);
    }
    void deliver(const std::shared_ptr<const SubscribeRequest>& message) override {
        record(subscribed, message->subscription);
    }
    void deliver(const std::shared_ptr<const UnsubscribeRequest>& message) override {
        record(unsubscribed, message->subscription);
    }
    template <class V>
    void record(std::vector<V>& list, const V& value) {
        std::lock_guard<std::mutex> guard(mutex);
        list.push_back(value);
    }

    const std::function<void()> onPublish;
    std::mutex mutex;
    std::vector<std::shared_ptr<const PublishRequest>> publishes;
    Texts subscribed;
    Texts unsubscribed;
};

// A routing core that also keeps a ledger of the patterns its sessions declare: how often
// each is held now, and how many sessions were forgotten.
class PatternLedger : public BayeuxServerImpl {
public:
    void declarePattern(BayeuxSession& session, const std::string& pattern) override {
        {
            std::lock_guard<std::mutex> guard(mutex);
            ++holds[pattern];
        }
        BayeuxServerImpl::declarePattern(session, pattern);
    }
    void withdrawPattern(BayeuxSession& session, const std::string& pattern) override {
        {
            std::lock_guard<std::mutex> guard(mutex);
            if (--holds[pattern] == 0) {
                holds.erase(pattern);
            }
        }
        BayeuxServerImpl::withdrawPattern(session, pattern);
    }
    void forgetSession(BayeuxSession& session) override {
        {
            std::lock_guard<std::mutex> guard(mutex);
            ++forgotten;
        }
        BayeuxServerImpl::forgetSession(session);
    }
    std::map<std::string, int> held() { return std::lock_guard<std::mutex>(mutex), holds; }
    int forgottenCount() { return std::lock_guard<std::mutex>(mutex), forgotten; }

private:
    std::mutex mutex;
    std::map<std::string, int> holds;
    int forgotten = 0;
};

}  // namespace korvane::bayeux::testing
