// The outbound WebSocket transport against a fake HTTP client service: what it asks
// the host for, how it fails, and how its two processors turn frames and messages.

#include <gtest/gtest.h>

#include "korvane/codec/messages.h"
#include "korvane/transport/websocket_client_provider.h"
#include "support/test_helpers.h"
#include "transport/transport_test_support.h"

namespace korvane::bayeux::testing {
namespace {

using MessageFeed = reactive_streams::CachedValuePublisher<std::unique_ptr<Message>, std::function<void()>>;

// Stands in for the host's HTTP client: records each request and answers as told.
class FakeHttpClient : public ServiceProvider {
public:
    enum class Answer { Socket, Failure, NotASocket };

    Future<std::unique_ptr<Message>> deliver(std::unique_ptr<Message>&& message, Address&&,
                                             std::shared_ptr<Context>&&) override {
        auto* request = dynamic_cast<http::HttpClientRequest*>(message.get());
        requests.push_back(request ? *request : http::HttpClientRequest("?", "?", nullptr));
        switch (answer) {
            case Answer::Failure:
                return makeErrorFuture<std::unique_ptr<Message>>(
                    std::make_exception_ptr(std::runtime_error("connection refused")));
            case Answer::NotASocket:
                return http::makeReadyHttpResponse(403, "no");
            case Answer::Socket:
                break;
        }
        fromRemote = std::make_shared<FrameFeed>(nullptr);
        toRemote = std::make_shared<FrameRecorder>();
        std::unique_ptr<Message> socket = std::make_unique<http::WebSocket>(fromRemote, toRemote);
        return makeReadyFuture(std::move(socket));
    }

    Answer answer = Answer::Socket;
    std::vector<http::HttpClientRequest> requests;
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
    std::string headersOf(const http::HttpClientRequest& request) {
        std::map<std::string, std::string> sorted(request.headers.begin(), request.headers.end());
        std::string text = request.method + " " + request.target;
        for (const auto& [name, value] : sorted) {
            text += " " + name + "=" + value;
        }
        return text;
    }

    std::shared_ptr<Services> services = std::make_shared<Services>();
    std::shared_ptr<FakeHttpClient> client = std::make_shared<FakeHttpClient>();
    std::shared_ptr<WebSocketClientConnectionServiceProvider> provider =
        std::make_shared<WebSocketClientConnectionServiceProvider>();
};

TEST_F(WebSocketClientTransport, AsksTheHostForAnUpgradeCarryingTheApiKeyFromTheContext) {
    const std::vector<std::pair<boost::any, std::string>> cases = {
        {boost::any(std::string("k1")), "get ws://remote/bayeux connection=upgrade tvapikey=k1 upgrade=websocket"},
        {boost::any(42), "get ws://remote/bayeux connection=upgrade tvapikey= upgrade=websocket"},
        {boost::any(), "get ws://remote/bayeux connection=upgrade upgrade=websocket"},
    };
    for (const auto& [key, expected] : cases) {
        client->requests.clear();
        std::unique_ptr<Message> reply =
            connect(std::make_unique<ConnectTransport>("ws://remote/bayeux"), key).get();
        EXPECT_NE(dynamic_cast<ConnectTransportResponse*>(reply.get()), nullptr);
        ASSERT_EQ(client->requests.size(), 1u);
        EXPECT_EQ(headersOf(client->requests[0]), expected);
        EXPECT_EQ(client->requests[0].body, nullptr);
    }
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
    EXPECT_EQ(client->toRemote->seen(),
              (std::vector<std::string>{R"({"channel":"/chat","clientId":"me","data":{"a":1}})", ""}));

    client->fromRemote->publish(textFrame(R"([{"channel":"/meta/handshake","clientId":"abc","successful":true}])"));
    client->fromRemote->publish(textFrame(""));
    client->fromRemote->publish(textFrame(R"([{"channel":"/a","data":1},{"channel":"/b","data":2}])"));
    auto received = std::make_shared<StreamRecorder>(1);
    opened.publisher->subscribe(received);
    ASSERT_EQ(received->size(), 1u) << "frames are requested only as the caller asks";
    auto* handshake = received->at<HandshakeResponse>(0);
    ASSERT_NE(handshake, nullptr) << "meta objects are read as responses";
    EXPECT_EQ(handshake->clientId, "abc");
    received->request(2);
    ASSERT_EQ(received->size(), 3u);
    EXPECT_TRUE(received->isNullAt(1)) << "an empty frame is a null message";
    auto* both = received->at<BayeuxContainer>(2);
    ASSERT_NE(both, nullptr);
    EXPECT_EQ(both->messages.size(), 2u);

    client->fromRemote->finish();
    EXPECT_EQ(received->completionCount(), 1) << "the remote's end reaches the caller";
}

}  // namespace
}  // namespace korvane::bayeux::testing
