// The long-poll transport and the HTTP dispatch, driven as the host drives them: HTTP requests
// in, responses out with their bodies read chunk by chunk.

#include <gtest/gtest.h>

#include "transport/transport_test_support.h"

namespace korvane::bayeux::testing {
namespace {

using LongPollTransport = TransportFixture;

TEST_F(LongPollTransport, AnswersEachBodyWithAJsonArrayOrAPlainText500) {
    const std::string me = handshake();
    const std::string error = "500 text/plain;charset=UTF-8 Error handling bayeux request: ";
    const std::string ok = "200 application/json;charset=UTF-8 ";
    const std::pair<std::string, std::string> cases[] = {  // body, answer with the client id as ME
        {R"({"channel":"/meta/subscribe","id":"1","clientId":"ME","subscription":"/a"})",
         ok + R"([{"channel":"/meta/subscribe","id":"1","clientId":"ME","successful":true,"subscription":"/a"}])"},
        {R"([{"channel":"/meta/subscribe","clientId":"ME","subscription":"/b"},)"
         R"({"channel":"/b","id":"2","clientId":"ME","data":{"x":[1,2]}}])",
         ok + R"([{"channel":"/meta/subscribe","clientId":"ME","successful":true,"subscription":"/b"},)"
              R"({"channel":"/b","id":"2","clientId":"ME","successful":true}])"},
        // The parser's own texts are its tests'; here, that they reach the client.
        {"", error + "JSON parsing error, expected array or object"},
        // Refused whole: a byte that is no UTF-8, a cut sequence, a lone surrogate escape in a decoded field.
        {R"({"channel":"/b","clientId":"ME","data":")" "\xC0\xAF" R"("})", error + "Invalid UTF-8 in request"},
        {R"({"channel":"/b","clientId":"ME","data":"ok"})" "\xE2\x82", error + "Invalid UTF-8 in request"},
        {R"({"channel":"/b\udc00","clientId":"ME","data":1})", error + "Invalid UTF-8 in request"},
        {R"([{"channel":"/meta/subscribe","clientId":"ME","subscription":"/x\ude00"},)"
         R"({"channel":"/meta/handshake","supportedConnectionTypes":["long-polling"]}])",
         error + "Invalid UTF-8 in request"},
        {R"({"channel":"/meta/connect","connectionType":"\udfff","clientId":"ME"})", error + "Invalid UTF-8 in request"},
    };
    for (const auto& [body, expected] : cases) {
        SCOPED_TRACE(body);
        Answer answer = post(named(body, "ME", me));
        EXPECT_EQ(std::to_string(answer.status) + " " + answer.contentType + " " + named(answer.body->joined(), me, "ME"),
                  expected);
        EXPECT_EQ(answer.body->completionCount(), 1);
    }
    auto failing = std::make_shared<BodyFeed>(nullptr);
    failing->publish(common::DataBuffer(std::string_view("{\"chan")));
    failing->setError(std::make_exception_ptr(std::runtime_error("peer went away")));
    for (const auto& [body, expected] : {std::pair{std::shared_ptr<BodyFeed>(failing), "peer went away"},
                                         {nullptr, "JSON parsing error, expected array or object"}}) {
        Answer cut = read(send(std::make_unique<http::HttpRequest>("post", "/bayeux", http::Headers(), body), browser()));
        EXPECT_EQ(std::to_string(cut.status) + " " + cut.body->joined(), "500 Error handling bayeux request: " + std::string(expected));
    }
}

TEST_F(LongPollTransport, HeldConnectStreamsTheMessageAndItsReplyAsOneArrayAndAShortPollTypeIsKept) {
    const std::string alice = handshake(), bob = handshake(browser("browser-2"));
    post(R"({"channel":"/meta/subscribe","clientId":")" + alice + R"(","subscription":"/chat/*"})");
    Answer shortPoll = post(R"({"channel":"/meta/connect","connectionType":"short-polling","clientId":")" + alice + "\"}");
    EXPECT_EQ(shortPoll.body->completionCount(), 1) << "short polls have no connect limit left and end at once";
    // A one-element array is a bare message: the connect takes the streaming path. Its headers first and a chunk
    // per message are the serializer's and the interop suite's to check; here, what reaches it.
    Answer held =
        post(R"([{"channel":"/meta/connect","id":"c1","clientId":")" + alice + R"(","advice":{"timeout":30000}}])");
    EXPECT_EQ(provider->getActiveConnectCountForSessionId("browser-1", "long-polling"), 1u)
        << "a connect without a connection type is a long poll";
    // A refused body reaches nobody; text and escapes that merely look odd go through untouched.
    post(R"({"channel":"/chat/room","clientId":")" + bob + R"(","data":")" "\xFF" "\"}", browser("browser-2"));
    const std::string data = "\"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80 \\ud800\"";
    post(R"({"channel":"/chat/room","id":"p","clientId":")" + bob + R"(","data":)" + data + "}", browser("browser-2"));
    clock->advance(5ms);
    EXPECT_EQ(named(held.body->joined(), alice, "ALICE"),
              R"([{"channel":"/chat/room","id":"p","clientId":null,"data":)" + data +
                  R"(},{"channel":"/meta/connect","id":"c1","clientId":"ALICE","successful":true}])");
    EXPECT_EQ(held.body->completionCount(), 1);
}

TEST_F(LongPollTransport, DispatchSendsUpgradesAndPostsToTheirTransportsAndRefusesTheRest) {
    const http::Headers upgrade{{"upgrade", "websocket"}};
    const std::string unknown = "400 Unknown Bayeux Transport";
    // method, headers, whether each transport is there, the answer: "websocket", "200", or the refusal's status and text
    const std::vector<std::tuple<std::string, http::Headers, bool, bool, std::string>> cases = {
        {"get", {}, true, true, unknown},
        {"get", upgrade, true, true, "websocket"},
        {"get", upgrade, true, false, unknown},
        {"post", upgrade, true, true, "websocket"},
        {"post", upgrade, false, true, "websocket"},
        {"post", {}, false, true, unknown},
        {"post", {}, true, true, "200"},
        {"post", {{"upgrade", "WebSocket"}}, true, true, "200"},
        {"post", {{"upgrade", "websocket, foo"}}, true, true, "200"},
        {"get", {{"upgrade", "WebSocket"}}, true, true, unknown},
        {"POST", {}, true, true, unknown},
    };
    auto services = std::make_shared<Services>(*routes);
    for (const auto& [method, headers, longPoll, webSocket, expected] : cases) {
        SCOPED_TRACE(method + " " + std::to_string(longPoll) + std::to_string(webSocket) + " " +
                     (headers.empty() ? "" : headers.begin()->second));
        auto dispatch = std::make_shared<BayeuxHttpServiceProvider>(Address(longPoll ? "long-poll" : ""),
                                                                     Address(webSocket ? "websocket" : ""));
        dispatch->start();
        (*services)["http"] = dispatch;
        std::unique_ptr<Message> reply = send(std::make_unique<http::HttpRequest>(method, "/bayeux/handshake", headers,
                                                                                  makeBody(R"({"channel":"/meta/handshake"})")),
                                              std::make_shared<TestContext>(services, "browser-1"));
        if (dynamic_cast<http::WebSocket*>(reply.get()) != nullptr) {
            EXPECT_EQ("websocket", expected);
            continue;
        }
        Answer answer = read(std::move(reply));
        EXPECT_EQ(answer.status == 200 ? "200" : std::to_string(answer.status) + " " + answer.body->joined(), expected);
    }
}

}  // namespace
}  // namespace korvane::bayeux::testing
