// Two clients talk to the protocol service the way the long-poll transport carries
// them: JSON text in, the typed dispatch, exact JSON text out, the held connect
// streamed message by message.

#include <regex>

#include "korvane/codec/deserialize.h"
#include "korvane/codec/serialize.h"
#include "korvane/frame/callback_subscriber.h"
#include "service/provider_test_support.h"

namespace korvane::bayeux::testing {
namespace {

class JsonConversation : public ProviderFixture {
protected:
    std::unique_ptr<Message> send(const std::string& json) {
        common::DataBuffer body(json);
        std::unique_ptr<Message> request = deserializeBayeuxMessage(body, true);
        if (auto* connect = dynamic_cast<ConnectStreamRequest*>(request.get())) {
            connect->bufferResponses = connect->holdResponses = true;
        }
        return provider->deliver(std::move(request), Address("bayeux"), std::shared_ptr<Context>(browser)).get();
    }

    static std::string text(std::unique_ptr<Message>&& message) {
        common::DataBuffer out;
        serializeBayeuxMessage(std::move(message), out);
        return out.str();
    }

    // The reply with the random client ids replaced by the names the test gave them.
    std::string answer(const std::string& json) { return named(text(send(json))); }

    std::string named(std::string reply) const {
        for (const auto& [id, name] : names) {
            reply = std::regex_replace(reply, std::regex(id), name);
        }
        return reply;
    }

    std::string handshake(const std::string& name) {
        std::unique_ptr<Message> reply = send(R"({"channel":"/meta/handshake","id":"h","version":"1.0"})");
        const std::string id = dynamic_cast<HandshakeResponse&>(*reply).clientId;
        names.emplace_back(id, name);
        EXPECT_EQ(named(text(std::move(reply))),
                  R"({"channel":"/meta/handshake","id":"h","clientId":")" + name +
                      R"(","successful":true,"version":"1.0","minimumVersion":"1.0",)"
                      R"("supportedConnectionTypes":["long-polling","websocket"]})");
        return id;
    }

    std::vector<std::pair<std::string, std::string>> names;
};

TEST_F(JsonConversation, HeldConnectCarriesAnotherClientsPublishByteForByte) {
    const std::string alice = handshake("ALICE");
    const std::string bob = handshake("BOB");
    EXPECT_EQ(answer(R"([{"channel":"/meta/subscribe","id":"s","clientId":")" + alice +
                     R"(","subscription":"/chat/*"}])"),
              R"({"channel":"/meta/subscribe","id":"s","clientId":"ALICE","successful":true,"subscription":"/chat/*"})");

    std::unique_ptr<Message> reply = send(R"({"channel":"/meta/connect","id":"c","clientId":")" + alice +
                                          R"(","connectionType":"long-polling","advice":{"timeout":30000}})");
    auto& connect = dynamic_cast<ConnectStreamResponse&>(*reply);
    ASSERT_TRUE(connect.successful && connect.stream);
    std::vector<std::string> streamed;
    bool completed = false;
    auto subscriber = std::make_shared<reactive_streams::CallbackSubscriber<std::unique_ptr<Message>>>(
        [&](std::unique_ptr<Message>&& message) { streamed.push_back(named(text(std::move(message)))); });
    subscriber->getFuture().then([&completed](Future<bool>&& done) { return completed = done.get(); });
    connect.stream->subscribe(subscriber);

    // A malformed body is refused by the reader and disturbs nobody.
    EXPECT_THROW(send(R"({"id":"x"})"), std::invalid_argument);
    EXPECT_EQ(answer(R"({"channel":"/chat/room1","id":"p","clientId":")" + bob +
                     R"(","data":{"text" : "h\u00e9llo <b>", "n":[1, 2]}})"),
              R"({"channel":"/chat/room1","id":"p","clientId":"BOB","successful":true})");
    clock->advance(4ms);
    EXPECT_TRUE(streamed.empty()) << "the batch waits for its 5 ms";
    clock->advance(1ms);
    EXPECT_EQ(streamed, (Texts{R"({"channel":"/chat/room1","id":"p","clientId":null,)"
                               R"("data":{"text" : "h\u00e9llo <b>", "n":[1, 2]}})",
                               R"({"channel":"/meta/connect","id":"c","clientId":"ALICE","successful":true})"}));
    EXPECT_TRUE(completed);

    EXPECT_EQ(answer(R"({"channel":"/meta/disconnect","id":"d","clientId":")" + alice + R"("})"),
              R"({"channel":"/meta/disconnect","id":"d","clientId":"ALICE","successful":true})");
    EXPECT_EQ(answer(R"({"channel":"/meta/connect","id":"c2","clientId":")" + alice + R"("})"),
              R"({"channel":"/meta/connect","id":"c2","clientId":"ALICE","successful":false,)"
              R"("error":"No such clientId.","advice":{"reconnect":"handshake","multipleClients":false}})");
}

}  // namespace
}  // namespace korvane::bayeux::testing
