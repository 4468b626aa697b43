#pragma once

// The transport tests' world, in memory and without sockets: the protocol service on a fresh
// routing core and a manual clock, the transports at their addresses, contexts that route by
// address as a host's do, request bodies that honour demand, and recorders for response bodies
// and WebSocket frames.

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "korvane/frame/cached_value_publisher.h"
#include "korvane/frame/http.h"
#include "korvane/service/bayeux_service_provider.h"
#include "korvane/transport/http_provider.h"
#include "korvane/transport/long_poll_provider.h"
#include "korvane/transport/websocket_provider.h"
#include "session/session_test_support.h"
#include "support/test_context.h"

namespace korvane::bayeux::testing {

using test_support::Services;
using test_support::TestContext;
using BodyRecorder = Recorder<common::DataBuffer>;
using FrameRecorder = Recorder<http::WebSocketFrame>;
using FrameFeed = reactive_streams::CachedValuePublisher<http::WebSocketFrame, std::function<void()>>;
using BodyFeed = reactive_streams::CachedValuePublisher<common::DataBuffer, std::function<void()>>;

// A request body that yields `text` in three chunks, each only on demand.
inline std::shared_ptr<http::BodyPublisher> makeBody(const std::string& text) {
    auto body = std::make_shared<BodyFeed>(nullptr);
    const std::size_t size = (text.size() + 2) / 3;
    for (std::size_t start = 0; start < text.size(); start += size) {
        body->publish(common::DataBuffer(std::string_view(text).substr(start, size)));
    }
    body->finish();
    return body;
}

// A response as the host would write it: its status, content type and the body recorded one
// chunk per request.
struct Answer {
    unsigned short status = 0;
    std::string contentType;
    std::shared_ptr<BodyRecorder> body = std::make_shared<BodyRecorder>(1, 1);
};

// One open WebSocket as the host holds it: what the server writes, the feed of what it reads,
// and the transport's writing end, watched for its release.
struct Socket {
    std::shared_ptr<FrameRecorder> written;
    std::shared_ptr<FrameFeed> feed;
    std::weak_ptr<reactive_streams::PublisherAPI<http::WebSocketFrame>> writer;
    void send(const std::string& text) { feed->publish(http::WebSocketFrame(common::DataBuffer(text), 129)); }
};

class TransportFixture : public ::testing::Test {
protected:
    TransportFixture() {
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
    // A reply that is no HTTP response fails the test with std::bad_cast.
    static Answer read(std::unique_ptr<Message>&& message) {
        auto& response = dynamic_cast<http::HttpResponse&>(*message);
        const auto type = response.headers.find("Content-Type");
        Answer answer{response.status, type == response.headers.end() ? "" : type->second};
        response.body->subscribe(answer.body);
        return answer;
    }
    std::unique_ptr<Message> send(std::unique_ptr<http::HttpRequest> request, std::shared_ptr<Context> context) {
        return context->handle<Message, http::HttpRequest>(std::move(request), Address("http")).get();
    }
    Answer post(const std::string& json, std::shared_ptr<Context> context = nullptr) {
        return read(send(std::make_unique<http::HttpRequest>("post", "/bayeux", http::Headers(), makeBody(json)),
                         context ? context : browser()));
    }
    // The answer to an upgrade: a WebSocket, as webSocketOf checks.
    std::unique_ptr<Message> open(std::shared_ptr<Context> context = nullptr) {
        http::Headers headers{{"upgrade", "websocket"}, {"connection", "Upgrade"}};
        return send(std::make_unique<http::HttpRequest>("get", "/bayeux", std::move(headers), nullptr),
                    context ? context : browser());
    }
    // An answer that is not a WebSocket fails the test with std::bad_cast.
    static http::WebSocket& webSocketOf(const std::unique_ptr<Message>& reply) { return dynamic_cast<http::WebSocket&>(*reply); }
    // An upgraded socket whose frames a recorder subscribes to.
    Socket upgrade(std::shared_ptr<Context> context = nullptr) {
        const std::unique_ptr<Message> reply = open(std::move(context));
        http::WebSocket& socket = webSocketOf(reply);
        Socket opened{std::make_shared<FrameRecorder>(), std::make_shared<FrameFeed>(nullptr), socket.inbound};
        socket.inbound->subscribe(opened.written);
        opened.feed->subscribe(socket.outbound);
        return opened;
    }
    // The client id in the reply `text`.
    static std::string clientIdIn(const std::string& text) {
        const std::size_t at = text.find("\"clientId\":\"");
        return at == std::string::npos ? std::string() : text.substr(at + 12, 16);
    }
    // Handshakes over long-polling and returns the client id.
    std::string handshake(std::shared_ptr<Context> context = nullptr) {
        return clientIdIn(post(R"({"channel":"/meta/handshake","version":"1.0","id":"h"})", context).body->joined());
    }
    // `text` with `id` written as `name`.
    static std::string named(std::string text, const std::string& id, const std::string& name) {
        for (std::size_t at = 0; !id.empty() && (at = text.find(id, at)) != std::string::npos; at += name.size()) {
            text.replace(at, id.size(), name);
        }
        return text;
    }

    ManualClock clock{1000};  // outlives the provider
    std::shared_ptr<BayeuxServiceProviderImpl> provider =
        std::make_shared<BayeuxServiceProviderImpl>(std::make_shared<BayeuxServerImpl>());
    std::shared_ptr<const Services> routes;
};

}  // namespace korvane::bayeux::testing
