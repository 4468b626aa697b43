// The outbound WebSocket transport against a fake HTTP client service: what it asks the host
// for, how it fails, and how its two processors turn frames and messages.

#include <gtest/gtest.h>

#include "korvane/codec/messages.h"
#include "korvane/transport/websocket_client_provider.h"
#include "support/test_helpers.h"
#include "transport/transport_test_support.h"

namespace korvane::bayeux::testing {
namespace {

using MessageFeed = reactive_streams::CachedValuePublisher<std::unique_ptr<Message>, std::function<void()>>;

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
        fromRemote = std::make_shared<FrameFeed>(nullptr);
        toRemote = std::make_shared<FrameRecorder>();
        return makeReadyFuture(std::unique_ptr<Message>(std::make_unique<http::WebSocket>(fromRemote, toRemote)));
    }

    Answer answer = Answer::Socket;
    Texts requests;
    // The remote ends of the latest connection.
    std::shared_ptr<FrameFeed> fromRemote;
    std::shared_ptr<FrameRecorder> toRemote;
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

TEST_F(WebSocketClientTransport, MessagesGoOutAsBareObjectsAndFramesComeInAsResponsesOnDemand) {
    std::unique_ptr<Message> reply = connect(std::make_unique<ConnectTransport>("ws://remote/")).get();
    auto& opened = dynamic_cast<ConnectTransportResponse&>(*reply);
    auto outgoing = std::make_shared<MessageFeed>(nullptr);
    outgoing->subscribe(opened.subscriber);
    outgoing->publish(makePublish("/chat", "{\"a\":1}", "me"));
    outgoing->publish(nullptr);
    EXPECT_EQ(client->toRemote->seen(), (Texts{R"({"channel":"/chat","clientId":"me","data":{"a":1}})", ""}));

    for (const char* frame : {R"([{"channel":"/meta/handshake","clientId":"abc","successful":true}])", "",
                              R"([{"channel":"/a","data":1},{"channel":"/b","data":2}])"}) {
        client->fromRemote->publish(http::WebSocketFrame(common::DataBuffer(frame), 129));
    }
    auto received = std::make_shared<StreamRecorder>(1);
    opened.publisher->subscribe(received);
    ASSERT_EQ(received->size(), 1u) << "frames are requested only as the caller asks";
    auto* handshake = received->at<HandshakeResponse>(0);
    EXPECT_EQ(handshake ? handshake->clientId : "not a response", "abc") << "meta objects are read as responses";
    received->request(2);
    EXPECT_EQ(received->seen(), (Texts{"?", "null", "?"})) << "an empty frame is a null message";
    auto* both = received->at<BayeuxContainer>(2);
    EXPECT_EQ(both ? both->messages.size() : 0u, 2u);
    client->fromRemote->finish();
    EXPECT_EQ(received->completionCount(), 1) << "the remote's end reaches the caller";
}

}  // namespace
}  // namespace korvane::bayeux::testing
