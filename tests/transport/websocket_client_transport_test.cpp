// The outbound WebSocket transport against a fake HTTP client service: what it asks the host
// for and how it fails. Its messages and frames in both directions are the host's test of it
// against our own server.

#include <gtest/gtest.h>

#include "korvane/codec/messages.h"
#include "korvane/transport/websocket_client_provider.h"
#include "support/test_helpers.h"
#include "transport/transport_test_support.h"

namespace korvane::bayeux::testing {
namespace {

// Stands in for the host's HTTP client: records each request as text and answers as told.
class FakeHttpClient : public ServiceProvider {
public:
    enum class Answer { Socket, Failure, NotASocket };
    Future<std::unique_ptr<Message>> deliver(std::unique_ptr<Message>&& message, Address&&,
                                             std::shared_ptr<Context>&&) override {
        auto* request = dynamic_cast<http::HttpClientRequest*>(message.get());
        std::map<std::string, std::string> headers(request->headers.begin(), request->headers.end());
        requests.push_back(request->method + " " + request->target + (request->body ? " with a body" : ""));
        for (const auto& [name, value] : headers) {
            requests.back() += " " + name + "=" + value;
        }
        if (answer == Answer::Failure) {
            return makeErrorFuture<std::unique_ptr<Message>>(
                std::make_exception_ptr(std::runtime_error("connection refused")));
        }
        if (answer == Answer::NotASocket) {
            return http::makeReadyHttpResponse(403, "no");
        }
        return makeReadyFuture(std::unique_ptr<Message>(
            std::make_unique<http::WebSocket>(std::make_shared<FrameFeed>(nullptr), std::make_shared<FrameRecorder>())));
    }

    Answer answer = Answer::Socket;
    Texts requests;
};

class WebSocketClientTransport : public ::testing::Test {
protected:
    WebSocketClientTransport() {
        client->start();
        provider->start();
        (*services)["http-client"] = client;
    }
    Future<std::unique_ptr<Message>> connect(std::unique_ptr<Message> message, const boost::any& apiKey = {}) {
        auto context = std::make_shared<TestContext>(services, "browser-1");
        if (!apiKey.empty()) {
            context->set("tvapikey", apiKey);
        }
        return provider->deliver(std::move(message), Address("http-client"), context);
    }

    std::shared_ptr<Services> services = std::make_shared<Services>();
    std::shared_ptr<FakeHttpClient> client = std::make_shared<FakeHttpClient>();
    std::shared_ptr<WebSocketClientConnectionServiceProvider> provider =
        std::make_shared<WebSocketClientConnectionServiceProvider>();
};

TEST_F(WebSocketClientTransport, AsksTheHostForAnUpgradeCarryingTheApiKeyFromTheContext) {
    for (const auto& key : {boost::any(std::string("k1")), boost::any(42), boost::any()}) {
        std::unique_ptr<Message> reply = connect(std::make_unique<ConnectTransport>("ws://remote/bayeux"), key).get();
        EXPECT_NE(dynamic_cast<ConnectTransportResponse*>(reply.get()), nullptr);
    }
    EXPECT_EQ(client->requests, (Texts{"get ws://remote/bayeux connection=upgrade tvapikey=k1 upgrade=websocket",
                                       "get ws://remote/bayeux connection=upgrade tvapikey= upgrade=websocket",
                                       "get ws://remote/bayeux connection=upgrade upgrade=websocket"}));
}

TEST_F(WebSocketClientTransport, FailuresReachTheReturnedFuture) {
    using test_support::errorOf;
    Future<std::unique_ptr<Message>> wrongType = connect(std::make_unique<HandshakeRequest>());
    EXPECT_TRUE(client->requests.empty()) << "no request goes out";
    EXPECT_EQ(errorOf([&] { wrongType.get(); }), "Invalid message type: N7korvane6bayeux16HandshakeRequestE");
    EXPECT_EQ(errorOf<std::bad_typeid>([&] { connect(nullptr); }), "std::bad_typeid");
    client->answer = FakeHttpClient::Answer::Failure;
    EXPECT_EQ(errorOf([&] { connect(std::make_unique<ConnectTransport>("ws://x/")).get(); }), "connection refused");
    client->answer = FakeHttpClient::Answer::NotASocket;
    EXPECT_EQ(errorOf([&] { connect(std::make_unique<ConnectTransport>("ws://x/")).get(); }),
              "Unable to cast response message type: korvane::http::HttpResponse to korvane::http::WebSocket");
}

}  // namespace
}  // namespace korvane::bayeux::testing
