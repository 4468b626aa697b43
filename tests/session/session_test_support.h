#pragma once

// Helpers of the session, protocol-service and transport tests: a recorder of what a stream
// hands its subscriber, a message builder and a manual clock. All but the clock are safe to
// use from several threads.

#include <gtest/gtest.h>

#include <numeric>

#include "korvane/codec/messages.h"
#include "korvane/frame/http.h"
#include "korvane/frame/manual_timer_backend.h"
#include "korvane/routing/bayeux_queue.h"
#include "korvane/routing/bayeux_server.h"
#include "routing/routing_test_support.h"
#include "support/recording_subscriber.h"

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

// The shared recording subscriber, with an item's text given by `describe` and the questions
// these tests ask of it. Asks for everything unless told otherwise.
template <class T>
class Recorder : public test_support::RecordingSubscriber<T> {
public:
    using Base = test_support::RecordingSubscriber<T>;
    explicit Recorder(unsigned long initialDemand = ~0ul, unsigned long refill = 0)
        : Base(initialDemand, refill, [](const T& item) { return describe(item); }) {}
    std::size_t size() { return this->seen().size(); }
    long completionCount() { return this->count("complete"); }
    long errorCount() { return this->count("error"); }
    // A connect still held: nothing carried, not ended.
    bool isHeld() { return this->events() == test_support::Log{"subscribe"}; }
    std::string joined() {
        const Texts texts = this->seen();
        return std::accumulate(texts.begin(), texts.end(), std::string());
    }
    // The message at `index` as `U`, or null if missing or of another type; it lives as long as the recorder.
    template <class U>
    const U* at(std::size_t index) {
        return this->read([&](const auto& items) {
            return index < items.size() ? dynamic_cast<const U*>(items[index].get()) : nullptr;
        });
    }
};

using StreamRecorder = Recorder<std::unique_ptr<Message>>;
using LocalPublisher = std::shared_ptr<reactive_streams::PublisherAPI<std::shared_ptr<const PublishRequest>>>;

template <class Item>  // only named in decltype: the item type of a stream
Item itemOf(const reactive_streams::PublisherAPI<Item>*);

// Subscribes a new recorder with a demand of `demand` (unlimited by default).
template <class Publisher>
auto watch(const std::shared_ptr<Publisher>& publisher, unsigned long demand = ~0ul) {
    auto recorder = std::make_shared<Recorder<decltype(itemOf(publisher.get()))>>(demand);
    publisher->subscribe(recorder);
    return recorder;
}

}  // namespace korvane::bayeux::testing
