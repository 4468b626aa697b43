// The long-poll transport and the HTTP dispatch, driven as the host drives them:
// HTTP requests in, responses out with their bodies read chunk by chunk.

#include <gtest/gtest.h>

#include <regex>

#include "transport/transport_test_support.h"

namespace korvane::bayeux::testing {
namespace {

class LongPollTransport : public TransportFixture {
protected:
    // The body with a client id replaced by `name`.
    static std::string named(std::string text, const std::string& id, const std::string& name) {
        return std::regex_replace(text, std::regex(id), name);
    }
};

TEST_F(LongPollTransport, AnswersEachBodyWithAJsonArrayOrAPlainText500) {
    struct Case {
        std::string body;
        unsigned short status;
        std::string contentType;
        std::string answer;  // with the client id replaced by ME
    };
    const std::string me = handshake();
    const std::vector<Case> cases = {
        {R"({"channel":"/meta/subscribe","id":"1","clientId":"ME","subscription":"/a"})", 200,
         "application/json;charset=UTF-8",
         R"([{"channel":"/meta/subscribe","id":"1","clientId":"ME","successful":true,"subscription":"/a"}])"},
        {R"([{"channel":"/meta/subscribe","clientId":"ME","subscription":"/b"},)"
         R"({"channel":"/b","id":"2","clientId":"ME","data":{"x":[1,2]}}])",
         200, "application/json;charset=UTF-8",
         R"([{"channel":"/meta/subscribe","clientId":"ME","successful":true,"subscription":"/b"},)"
         R"({"channel":"/b","id":"2","clientId":"ME","successful":true}])"},
        {R"({"channel":"/meta/unsubscribe","clientId":"ME","subscription":"/never"})", 200,
         "application/json;charset=UTF-8",
         R"([{"channel":"/meta/unsubscribe","clientId":"ME","successful":false,"error":"No such subscription.",)"
         R"("subscription":"/never"}])"},
        {R"({"channel":"/meta/connect","connectionType":"long-polling","clientId":"unknown-client-1"})", 200,
         "application/json;charset=UTF-8",
         R"([{"channel":"/meta/connect","clientId":"unknown-client-1","successful":false,)"
         R"("error":"No such clientId.","advice":{"reconnect":"handshake","multipleClients":false}}])"},
        {"", 500, "text/plain;charset=UTF-8",
         "Error handling bayeux request: JSON parsing error, expected array or object"},
        {"{\"channel\":", 500, "text/plain;charset=UTF-8",
         "Error handling bayeux request: Invalid JSON, expected '\"'"},
        {R"({"id":"1"})", 500, "text/plain;charset=UTF-8",
         "Error handling bayeux request: JSON parsing error, invalid bayeux request"},
        {"[]", 500, "text/plain;charset=UTF-8", "Error handling bayeux request: Invalid JSON, expected '{'"},
        {"garbage", 500, "text/plain;charset=UTF-8",
         "Error handling bayeux request: JSON parsing error, expected array or object"},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.body);
        Answer answer = post(named(test.body, "ME", me));
        EXPECT_EQ(answer.status, test.status);
        EXPECT_EQ(answer.contentType, test.contentType);
        EXPECT_EQ(named(answer.body->joined(), me, "ME"), test.answer);
        EXPECT_EQ(answer.body->completionCount(), 1);
    }
}

TEST_F(LongPollTransport, HeldConnectStreamsTheMessageAndItsReplyAsOneArrayFiveMillisecondsAfterAPublish) {
    const std::string alice = handshake();
    const std::string bob = handshake(browser("browser-2"));
    post(R"({"channel":"/meta/subscribe","clientId":")" + alice + R"(","subscription":"/chat/*"})");
    // A one-element array is a bare message: the connect takes the streaming path.
    Answer held =
        post(R"([{"channel":"/meta/connect","id":"c1","clientId":")" + alice + R"(","advice":{"timeout":30000}}])");
    EXPECT_EQ(held.status, 200);
    EXPECT_EQ(held.contentType, "application/json;charset=UTF-8");
    EXPECT_TRUE(held.body->seen().empty()) << "the headers go out at once, the body waits";
    EXPECT_EQ(provider->getActiveConnectCountForSessionId("browser-1", "long-polling"), 1u)
        << "a connect without a connection type is a long poll";

    Answer published = post(R"({"channel":"/chat/room","id":"p","clientId":")" + bob + R"(","data":"hi"})",
                            browser("browser-2"));
    EXPECT_EQ(named(published.body->joined(), bob, "BOB"),
              R"([{"channel":"/chat/room","id":"p","clientId":"BOB","successful":true}])");
    clock->advance(4ms);
    EXPECT_TRUE(held.body->seen().empty());
    clock->advance(1ms);
    EXPECT_EQ(named(held.body->joined(), alice, "ALICE"),
              R"([{"channel":"/chat/room","id":"p","clientId":null,"data":"hi"},)"
              R"({"channel":"/meta/connect","id":"c1","clientId":"ALICE","successful":true}])");
    EXPECT_EQ(held.body->seen().size(), 2u) << "one chunk per message";
    EXPECT_EQ(held.body->completionCount(), 1);
}

TEST_F(LongPollTransport, ConnectKeepsAShortPollTypeAndEndsAtItsHoldTime) {
    const std::string me = handshake();
    Answer shortPoll = post(R"({"channel":"/meta/connect","id":"s","connectionType":"short-polling","clientId":")" +
                            me + R"("})");
    EXPECT_EQ(shortPoll.body->completionCount(), 1) << "short polls have no connect limit left and end at once";
    EXPECT_EQ(provider->getActiveConnectCountForSessionId("browser-1", "long-polling"), 0u);

    Answer held = post(R"({"channel":"/meta/connect","id":"h","clientId":")" + me +
                       R"(","advice":{"timeout":2000}})");
    clock->advance(1900ms);
    EXPECT_EQ(held.body->completionCount(), 0);
    clock->advance(100ms);
    EXPECT_EQ(named(held.body->joined(), me, "ME"),
              R"([{"channel":"/meta/connect","id":"h","clientId":"ME","successful":true}])");
}

TEST_F(LongPollTransport, BodyThatFailsOrIsCutAnswers500AndTheBatchBeforeAFailureStillTookEffect) {
    auto failing = std::make_shared<reactive_streams::CachedValuePublisher<common::DataBuffer, std::function<void()>>>(
        nullptr);
    failing->publish(common::DataBuffer(std::string_view("{\"chan")));
    failing->setError(std::make_exception_ptr(std::runtime_error("peer went away")));
    Answer cut = read(send(std::make_unique<http::HttpRequest>("post", "/bayeux", http::Headers(), failing)));
    EXPECT_EQ(cut.status, 500);
    EXPECT_EQ(cut.body->joined(), "Error handling bayeux request: peer went away");

    Answer noBody = read(send(std::make_unique<http::HttpRequest>("post", "/bayeux", http::Headers(), nullptr)));
    EXPECT_EQ(noBody.body->joined(), "Error handling bayeux request: JSON parsing error, expected array or object");
}

TEST_F(LongPollTransport, DispatchSendsUpgradesAndPostsToTheirTransportsAndRefusesTheRest) {
    struct Case {
        std::string method;
        http::Headers headers;
        bool longPoll;
        bool webSocket;
        std::string answer;  // "websocket", "200", or the status and text of the refusal
    };
    const http::Headers upgrade{{"upgrade", "websocket"}};
    const std::vector<Case> cases = {
        {"get", {}, true, true, "400 Unknown Bayeux Transport"},
        {"get", upgrade, true, true, "websocket"},
        {"get", upgrade, true, false, "400 Unknown Bayeux Transport"},
        {"post", upgrade, true, true, "websocket"},
        {"post", upgrade, false, true, "websocket"},
        {"post", {}, false, true, "400 Unknown Bayeux Transport"},
        {"post", {}, true, true, "200"},
        {"post", {{"upgrade", "WebSocket"}}, true, true, "200"},
        {"post", {{"upgrade", "websocket, foo"}}, true, true, "200"},
        {"get", {{"upgrade", "WebSocket"}}, true, true, "400 Unknown Bayeux Transport"},
        {"POST", {}, true, true, "400 Unknown Bayeux Transport"},
    };
    auto services = std::make_shared<Services>(*routes);
    for (const Case& test : cases) {
        SCOPED_TRACE(test.method + " " + std::to_string(test.longPoll) + std::to_string(test.webSocket) + " " +
                     (test.headers.empty() ? "" : test.headers.begin()->second));
        auto dispatch = std::make_shared<BayeuxHttpServiceProvider>(Address(test.longPoll ? "long-poll" : ""),
                                                                     Address(test.webSocket ? "websocket" : ""));
        dispatch->start();
        (*services)["http"] = dispatch;
        auto context = std::make_shared<TestContext>(services, "browser-1");
        std::unique_ptr<Message> reply =
            context
                ->handle<Message, http::HttpRequest>(
                    std::make_unique<http::HttpRequest>(test.method, "/bayeux/handshake", test.headers,
                                                        makeBody(R"({"channel":"/meta/handshake"})")),
                    Address("http"))
                .get();
        if (dynamic_cast<http::WebSocket*>(reply.get()) != nullptr) {
            EXPECT_EQ("websocket", test.answer);
            continue;
        }
        Answer answer = read(std::move(reply));
        EXPECT_EQ(answer.status == 200 ? "200" : std::to_string(answer.status) + " " + answer.body->joined(),
                  test.answer);
    }
}

TEST_F(LongPollTransport, WebSocketProviderRefusesWhatIsNoUpgrade) {
    const std::vector<std::pair<std::string, std::function<std::unique_ptr<Message>()>>> refused = {
        {"post", [] { return std::make_unique<http::HttpRequest>("post", "/", http::Headers(), nullptr); }},
        {"WebSocket",
         [] {
             return std::make_unique<http::HttpRequest>("get", "/", http::Headers{{"upgrade", "WebSocket"}}, nullptr);
         }},
        {"a handshake", [] { return std::make_unique<HandshakeRequest>(); }},
        {"null", [] { return nullptr; }},
    };
    for (const auto& [name, make] : refused) {
        SCOPED_TRACE(name);
        Answer answer = read(routes->at("websocket")->deliver(make(), Address("websocket"), browser()).get());
        EXPECT_EQ(answer.status, 500);
        EXPECT_EQ(answer.body->joined(), "Bayeux protocol error.");
    }
}

TEST_F(LongPollTransport, BodyThatIsNotUtf8IsRefusedWholeAndTheRoomCarriesOn) {
    const std::string alice = handshake();
    const std::string bob = handshake(browser("browser-2"));
    post(R"({"channel":"/meta/subscribe","clientId":")" + alice + R"(","subscription":"/room"})");
    const std::string publishHead = R"({"channel":"/room","clientId":")" + bob + R"(","data":")";
    for (const std::string bytes : {"\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xFF", "\xE2\x82"}) {
        SCOPED_TRACE(::testing::PrintToString(bytes));
        Answer refused = post(publishHead + bytes + "\"}", browser("browser-2"));
        EXPECT_EQ(refused.status, 500);
        EXPECT_EQ(refused.contentType, "text/plain;charset=UTF-8");
        EXPECT_EQ(refused.body->joined(), "Error handling bayeux request: Invalid UTF-8 in request");
    }
    Answer cutInTheMiddle = post(publishHead + "ok\"}\xE2\x82", browser("browser-2"));
    EXPECT_EQ(cutInTheMiddle.body->joined(), "Error handling bayeux request: Invalid UTF-8 in request");
    // A lone low surrogate escape in a field the reader decodes would come back out as raw bytes.
    for (const std::string& body :
         {R"({"channel":"/room\udc00","clientId":")" + bob + R"(","data":1})",
          R"([{"channel":"/meta/subscribe","clientId":")" + bob + R"(","subscription":"/x\ude00"},)"
          R"({"channel":"/meta/handshake","supportedConnectionTypes":["long-polling"]}])",
          R"({"channel":"/meta/connect","connectionType":"\udfff","clientId":")" + bob + R"("})"}) {
        SCOPED_TRACE(body);
        EXPECT_EQ(post(body, browser("browser-2")).body->joined(),
                  "Error handling bayeux request: Invalid UTF-8 in request");
    }

    // Nothing of the refused bodies went anywhere; text and escapes that merely look odd go through.
    Answer held = post(R"({"channel":"/meta/connect","id":"c","clientId":")" + alice + R"("})");
    Answer accepted = post(publishHead + "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80 \\ud800\"}", browser("browser-2"));
    EXPECT_EQ(accepted.status, 200);
    clock->advance(5ms);
    EXPECT_EQ(named(held.body->joined(), alice, "ALICE"),
              "[{\"channel\":\"/room\",\"clientId\":null,\"data\":\"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80 \\ud800\"},"
              R"({"channel":"/meta/connect","id":"c","clientId":"ALICE","successful":true}])");
}

}  // namespace
}  // namespace korvane::bayeux::testing
