#pragma once

// The transport tests' world, in memory and without sockets: the protocol service on a
// fresh routing core and a manual clock, the transports at their addresses, a context
// that routes by address as a host's does, request bodies that honour demand, and
// recorders for response bodies and WebSocket frames.

#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <boost/any.hpp>

#include "korvane/frame/cached_value_publisher.h"
#include "korvane/frame/http.h"
#include "korvane/service/bayeux_service_provider.h"
#include "korvane/transport/http_provider.h"
#include "korvane/transport/long_poll_provider.h"
#include "korvane/transport/websocket_provider.h"
#include "session/session_test_support.h"
#include "support/test_context.h"

namespace korvane::bayeux::testing {

using test_support::TestContext;
using test_support::Services;

inline std::string textOf(const common::DataBuffer& buffer) { return buffer.str(); }
inline std::string textOf(const http::WebSocketFrame& frame) {
    return (frame.firstByte == 129 ? "" : "first byte " + std::to_string(frame.firstByte) + ": ") + frame.data.str();
}

// Records the text of every item. Asks for `initialDemand` items on subscription and for
// `refill` more after each item, as a host writing a body chunk by chunk does.
template <class T>
class TextRecorder : public reactive_streams::SubscriberAPI<T> {
public:
    explicit TextRecorder(unsigned long initialDemand = ~0ul, unsigned long refill = 0,
                          std::function<void(const std::string&)> onText = nullptr)
        : initialDemand(initialDemand), refill(refill), onText(std::move(onText)) {}

    void onSubscribe(std::weak_ptr<reactive_streams::Subscription> subscription) override {
        guard(), upstream = subscription;
        request(initialDemand);
    }
    void onNext(T&& value) override {
        const std::string text = textOf(value);
        {
            auto held = guard();
            texts.push_back(text);
            changed.notify_all();
        }
        if (onText) {
            onText(text);
        }
        if (refill != 0) {
            request(refill);
        }
    }
    void onError(std::exception_ptr) override { guard(), ++errors, changed.notify_all(); }
    void onComplete() override { guard(), ++completions, changed.notify_all(); }
    Future<bool> getFuture() override { return makeReadyFuture(true); }

    void request(unsigned long n) {
        if (auto source = (guard(), upstream.lock())) {
            source->request(n);
        }
    }
    void cancel() {
        if (auto source = (guard(), upstream.lock())) {
            source->cancel();
        }
    }
    std::vector<std::string> seen() { return guard(), texts; }
    std::string joined() {
        auto held = guard();
        std::string all;
        for (const auto& text : texts) {
            all += text;
        }
        return all;
    }
    int errorCount() { return guard(), errors; }
    int completionCount() { return guard(), completions; }
    // Waits until `done` holds of this recorder, at most `limit`; true if it does.
    bool waitFor(const std::function<bool(TextRecorder&)>& done, std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> held(mutex);
        return changed.wait_for(held, limit, [&] {
            held.unlock();
            bool result = done(*this);
            held.lock();
            return result;
        });
    }

private:
    std::unique_lock<std::mutex> guard() { return std::unique_lock<std::mutex>(mutex); }

    std::mutex mutex;
    std::condition_variable changed;
    const unsigned long initialDemand;
    const unsigned long refill;
    std::function<void(const std::string&)> onText;
    std::weak_ptr<reactive_streams::Subscription> upstream;
    std::vector<std::string> texts;
    int errors = 0;
    int completions = 0;
};

using BodyRecorder = TextRecorder<common::DataBuffer>;
using FrameRecorder = TextRecorder<http::WebSocketFrame>;
using FrameFeed = reactive_streams::CachedValuePublisher<http::WebSocketFrame, std::function<void()>>;

// A request body that yields `text` in `pieces` chunks, each only on demand.
inline std::shared_ptr<http::BodyPublisher> makeBody(const std::string& text, std::size_t pieces = 3) {
    auto body = std::make_shared<reactive_streams::CachedValuePublisher<common::DataBuffer, std::function<void()>>>(
        nullptr);
    const std::size_t size = (text.size() + pieces - 1) / pieces;
    for (std::size_t start = 0; start < text.size(); start += size) {
        body->publish(common::DataBuffer(std::string_view(text).substr(start, size)));
    }
    body->finish();
    return body;
}

inline http::WebSocketFrame textFrame(const std::string& text) {
    return http::WebSocketFrame(common::DataBuffer(text), 129);
}

// A response as the host would write it: its status, content type and the body recorded
// one chunk per request.
struct Answer {
    unsigned short status = 0;
    std::string contentType;
    std::shared_ptr<BodyRecorder> body;
};

// One open WebSocket as the host holds it: what the server writes, and the feed of what it reads.
struct Socket {
    std::shared_ptr<FrameRecorder> written;
    std::shared_ptr<FrameFeed> feed;
    // The transport's two ends, watched for their release.
    std::weak_ptr<reactive_streams::PublisherAPI<http::WebSocketFrame>> writer;
    std::weak_ptr<reactive_streams::SubscriberAPI<http::WebSocketFrame>> reader;
    void send(const std::string& text) { feed->publish(textFrame(text)); }
};

class TransportFixture : public ::testing::Test {
protected:
    TransportFixture() {
        provider = std::make_shared<BayeuxServiceProviderImpl>(server);
        auto services = std::make_shared<Services>();
        (*services)["bayeux"] = provider;
        (*services)["long-poll"] = std::make_shared<BayeuxLongPollServiceProvider>();
        (*services)["websocket"] = std::make_shared<BayeuxWebSocketServiceProvider>();
        (*services)["http"] = std::make_shared<BayeuxHttpServiceProvider>(Address("long-poll"), Address("websocket"));
        for (auto& entry : *services) {
            entry.second->start();
        }
        routes = services;
    }

    std::shared_ptr<Context> browser(const std::string& sessionId = "browser-1") const {
        return std::make_shared<TestContext>(routes, sessionId);
    }
    static Answer read(std::unique_ptr<Message>&& message) {
        Answer answer;
        auto* response = dynamic_cast<http::HttpResponse*>(message.get());
        if (response == nullptr) {
            ADD_FAILURE() << "not an HTTP response";
            return answer;
        }
        answer.status = response->status;
        auto type = response->headers.find("Content-Type");
        answer.contentType = type == response->headers.end() ? "" : type->second;
        answer.body = std::make_shared<BodyRecorder>(1, 1);
        response->body->subscribe(answer.body);
        return answer;
    }
    Answer post(const std::string& json, std::shared_ptr<Context> context = nullptr) {
        return read(send(std::make_unique<http::HttpRequest>("post", "/bayeux", http::Headers(), makeBody(json)),
                         std::move(context)));
    }
    std::unique_ptr<Message> send(std::unique_ptr<http::HttpRequest> httpRequest,
                                  std::shared_ptr<Context> context = nullptr) {
        context = context ? context : browser();
        return context->handle<Message, http::HttpRequest>(std::move(httpRequest), Address("http")).get();
    }
    Socket upgrade(std::shared_ptr<Context> context = nullptr,
                   std::function<void(const std::string&)> onFrame = nullptr) {
        http::Headers headers{{"upgrade", "websocket"}, {"connection", "Upgrade"}};
        std::unique_ptr<Message> reply =
            send(std::make_unique<http::HttpRequest>("get", "/bayeux", std::move(headers), nullptr),
                 std::move(context));
        auto* socket = dynamic_cast<http::WebSocket*>(reply.get());
        Socket opened{std::make_shared<FrameRecorder>(~0ul, 0, std::move(onFrame)), std::make_shared<FrameFeed>(nullptr), {}, {}};
        if (socket == nullptr) {
            ADD_FAILURE() << "the upgrade was not answered with a WebSocket";
            return opened;
        }
        opened.writer = socket->inbound;
        opened.reader = socket->outbound;
        socket->inbound->subscribe(opened.written);
        opened.feed->subscribe(socket->outbound);
        return opened;
    }
    // Handshakes over long-polling and returns the client id.
    std::string handshake(std::shared_ptr<Context> context = nullptr) {
        Answer answer = post(R"({"channel":"/meta/handshake","version":"1.0","id":"h"})", std::move(context));
        const std::string body = answer.body->joined();
        const std::string key = "\"clientId\":\"";
        const std::size_t at = body.find(key);
        return at == std::string::npos ? std::string() : body.substr(at + key.size(), 16);
    }

    ManualClock clock{1000};  // outlives the provider
    std::shared_ptr<BayeuxServerImpl> server = std::make_shared<BayeuxServerImpl>();
    std::shared_ptr<BayeuxServiceProviderImpl> provider;
    std::shared_ptr<const Services> routes;
};

}  // namespace korvane::bayeux::testing
