#pragma once

// Helpers of the session, protocol-service and transport tests: a recorder of what a stream
// hands its subscriber, a routing core that keeps a ledger of declared patterns, a message
// builder and a manual clock. All but the clock are safe to use from several threads.

#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>

#include "korvane/codec/messages.h"
#include "korvane/frame/http.h"
#include "korvane/frame/manual_timer_backend.h"
#include "korvane/routing/bayeux_queue.h"
#include "korvane/routing/bayeux_server.h"
#include "routing/routing_test_support.h"

namespace korvane::bayeux::testing {

using namespace std::chrono_literals;
using Texts = std::vector<std::string>;

inline std::unique_ptr<PublishRequest> makePublish(const std::string& channel, const std::string& data,
                                                   const std::string& clientId = "publisher") {
    auto request = publish(channel, clientId);
    request->data = std::make_shared<common::DataBuffer>(data);
    return request;
}

// Advice as "<reconnect>/<interval>/<timeout>", or "none".
inline std::string describe(const std::shared_ptr<BayeuxAdvice>& advice) {
    return advice ? std::to_string(advice->reconnect) + "/" + std::to_string(advice->interval) + "/" +
                        std::to_string(advice->timeout)
                  : "none";
}
// A stream item as text: a message's data; "response:<id>" for a connect response, then " failed"
// if it failed and its advice if it has any; a buffer's text; a frame's text, after its first byte
// unless that is a text frame's.
inline std::string describe(const Message* message) {
    if (auto response = dynamic_cast<const ConnectResponse*>(message)) {
        return "response:" + response->id + (response->successful ? "" : " failed") +
               (response->advice ? " advice:" + describe(response->advice) : "");
    }
    auto publish = dynamic_cast<const PublishRequest*>(message);
    return publish ? publish->data->str() : message ? "?" : "null";
}
inline std::string describe(const std::unique_ptr<Message>& message) { return describe(message.get()); }
inline std::string describe(const std::shared_ptr<const PublishRequest>& message) { return describe(message.get()); }
inline std::string describe(const common::DataBuffer& buffer) { return buffer.str(); }
inline std::string describe(const http::WebSocketFrame& frame) {
    return (frame.firstByte == 129 ? "" : "first byte " + std::to_string(frame.firstByte) + ": ") + frame.data.str();
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

// Keeps every item, and its text, and counts the ends. Asks for `initialDemand` items on
// subscription and `refill` more after each, as a host writing a body chunk by chunk does,
// and hands each text to `onText`, outside its lock.
template <class T>
class Recorder : public reactive_streams::SubscriberAPI<T> {
public:
    explicit Recorder(unsigned long initialDemand = ~0ul, unsigned long refill = 0,
                      std::function<void(const std::string&)> onText = nullptr)
        : initialDemand(initialDemand), refill(refill), onText(std::move(onText)) {}

    void onSubscribe(std::weak_ptr<reactive_streams::Subscription> subscription) override {
        lock(), upstream = subscription;
        if (initialDemand != 0) {
            request(initialDemand);
        }
    }
    void onNext(T&& value) override {
        const std::string text = describe(value);
        lock(), items.push_back(std::move(value)), texts.push_back(text), changed.notify_all();
        if (onText) {
            onText(text);
        }
        if (refill != 0) {
            request(refill);
        }
    }
    void onError(std::exception_ptr) override { lock(), ++errors, changed.notify_all(); }
    void onComplete() override { lock(), ++completions, changed.notify_all(); }
    Future<bool> getFuture() override { return makeReadyFuture(true); }

    void request(unsigned long n) {
        if (auto source = (lock(), upstream.lock())) {
            source->request(n);
        }
    }
    void cancel() {
        if (auto source = (lock(), upstream.lock())) {
            source->cancel();
        }
    }
    std::size_t size() { return lock(), items.size(); }
    Texts seen() { return lock(), texts; }
    std::string joined() {
        std::string all;
        for (const std::string& text : seen()) {
            all += text;
        }
        return all;
    }
    int errorCount() { return lock(), errors; }
    int completionCount() { return lock(), completions; }
    // A connect still held: nothing carried, not ended.
    bool isHeld() { return lock(), items.empty() && completions == 0 && errors == 0; }
    bool waitCompleted(std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> guard(mutex);
        return changed.wait_for(guard, limit, [this] { return completions > 0; });
    }
    // The message at `index` as `U`, or null if missing or of another type; it lives as long as the recorder.
    template <class U>
    const U* at(std::size_t index) {
        return lock(), index < items.size() ? dynamic_cast<const U*>(items[index].get()) : nullptr;
    }

private:
    // The guard holds `mutex` to the end of the full expression: `lock(), expr` runs expr under it.
    std::unique_lock<std::mutex> lock() { return std::unique_lock<std::mutex>(mutex); }

    std::mutex mutex;
    std::condition_variable changed;
    const unsigned long initialDemand;
    const unsigned long refill;
    const std::function<void(const std::string&)> onText;
    std::weak_ptr<reactive_streams::Subscription> upstream;
    std::vector<T> items;
    Texts texts;
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

// A routing core that keeps a ledger of the patterns its sessions declare, how often each is
// held now, and of how many sessions were forgotten (as "forgotten").
class PatternLedger : public BayeuxServerImpl {
public:
    void declarePattern(BayeuxSession& session, const std::string& pattern) override {
        count(pattern, 1), BayeuxServerImpl::declarePattern(session, pattern);
    }
    void withdrawPattern(BayeuxSession& session, const std::string& pattern) override {
        count(pattern, -1), BayeuxServerImpl::withdrawPattern(session, pattern);
    }
    void forgetSession(BayeuxSession& session) override {
        count("forgotten", 1), BayeuxServerImpl::forgetSession(session);
    }
    std::map<std::string, int> held() { return std::lock_guard<std::mutex>(mutex), holds; }

private:
    void count(const std::string& key, int change) {
        const std::lock_guard<std::mutex> guard(mutex);
        if ((holds[key] += change) == 0) {
            holds.erase(key);
        }
    }
    std::mutex mutex;
    std::map<std::string, int> holds;
};

}  // namespace korvane::bayeux::testing
