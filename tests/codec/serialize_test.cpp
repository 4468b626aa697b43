#include "korvane/codec/serialize.h"

#include <gtest/gtest.h>

#include <typeinfo>

#include "korvane/codec/deserialize.h"
#include "korvane/frame/type_name.h"
#include "support/test_helpers.h"

namespace korvane::bayeux {
namespace {

using common::DataBuffer;

std::string textOf(std::unique_ptr<Message> message) {
    DataBuffer out;
    serializeBayeuxMessage(std::move(message), out);
    return out.str();
}

// A T built from `arguments`, its members then set by `fill`.
template <class T, class Fill, class... Arguments>
std::unique_ptr<Message> with(Fill fill, Arguments... arguments) {
    auto message = std::make_unique<T>(arguments...);
    fill(*message);
    return message;
}

TEST(Serialize, EveryClassHasItsExactBytes) {
    // Text the reader turns into a message comes back byte for byte, read on either side, and a publish
    // request the same from serializePublishRequest alone. The reader decodes the escapes the writer makes.
    const std::string meta = "{\"channel\":\"/meta/", noClient = "\",\"clientId\":null";
    const std::vector<std::string> requests = {
        "{\"channel\":\"/foo\",\"clientId\":null,\"data\":{\"a\" : 1}}",
        "{\"channel\":\"/foo\",\"id\":\"4\",\"clientId\":\"k\"}",
        "{\"channel\":\"/chat/\\u003croom\\u003e \\u0026 \\u0027x\\u0027\xC3\xA9\",\"id\":\"id\\n\\\"1\\\"\","
            "\"clientId\":\"c\\u0000\\u001f\",\"data\":{ \"text\" : \"a\\u0026b\\q\", \"n\":[1, 2e3] }}",
        meta + "subscribe\",\"id\":\"2\",\"clientId\":\"c1\",\"subscription\":\"/a/*\"}",
        meta + "unsubscribe" + noClient + ",\"subscription\":\"\"}",
        meta + "unsubscribe\",\"id\":\"9\",\"clientId\":\"k\",\"subscription\":\"/a/**\"}",
        meta + "handshake\",\"id\":\"1\",\"clientId\":null,\"version\":\"1.0\",\"minimumVersion\":\"0.9\","
            "\"supportedConnectionTypes\":[\"long-polling\",\"callback-polling\"]}",
        meta + "disconnect\",\"id\":\"3\",\"clientId\":\"k\"}",
        meta + "connect\",\"clientId\":\"abc\",\"connectionType\":\"long-polling\","
            "\"advice\":{\"reconnect\":\"none\",\"timeout\":0,\"multipleClients\":false}}",
        "{\"channel\":\"/chat/room1\",\"id\":\"5\",\"clientId\":null,\"successful\":true}",
    };
    const std::vector<std::string> responses = {
        meta + "disconnect" + noClient + ",\"successful\":false}",
        meta + "disconnect" + noClient + ",\"successful\":true}",
        meta + "subscribe\",\"id\":\"7\",\"clientId\":\"abc\",\"successful\":false,\"error\":\"No such clientId.\","
            "\"subscription\":\"/a/b\"}",
        meta + "unsubscribe" + noClient + ",\"successful\":true,\"subscription\":\"/x\","
            "\"advice\":{\"reconnect\":\"none\",\"multipleClients\":false}}",
        meta + "unsubscribe" + noClient + ",\"successful\":false,\"error\":\"403::denied\",\"subscription\":\"/a\"}",
        meta + "handshake\",\"clientId\":\"k\",\"successful\":true,\"error\":\"\xF0\x9F\x98\x80\",\"version\":\"1.0\","
            "\"minimumVersion\":\"0.9\",\"supportedConnectionTypes\":[\"long-polling\",\"websocket\"],\"advice\":{"
            "\"reconnect\":\"handshake\",\"interval\":5,\"timeout\":6,\"multipleClients\":true,\"hosts\":[\"x\",\"y\"],"
            "\"websocket\":{\"reconnect\":\"none\",\"timeout\":0,\"multipleClients\":false,\"hosts\":[\"h\"]}}}",
        meta + "connect" + noClient + ",\"successful\":true,"
            "\"advice\":{\"reconnect\":\"none\",\"multipleClients\":false,"
            "\"long-polling\":{\"reconnect\":\"retry\",\"interval\":1000,\"multipleClients\":true}}}",
    };
    for (bool isRequest : {true, false}) {
        for (const std::string& text : isRequest ? requests : responses) {
            DataBuffer buffer(text), direct;
            auto message = deserializeBayeuxMessage(buffer, isRequest);
            if (auto* publish = dynamic_cast<PublishRequest*>(message.get())) {
                serializePublishRequest(publish, direct);
                EXPECT_EQ(direct.str(), text);
            }
            EXPECT_EQ(textOf(std::move(message)), text);
        }
    }
    // Messages the reader never produces, or with members that never reach the wire; an unknown reconnect is "error".
    std::pair<std::unique_ptr<Message>, std::string> cases[] = {
        {std::make_unique<PublishRequest>("/foo"), "{\"channel\":\"/foo\",\"clientId\":null}"},
        {with<ConnectRequest>([](auto& m) { m.connectionType = "long-polling"; }),
         meta + "connect" + noClient + ",\"connectionType\":\"long-polling\"}"},
        {with<ConnectStreamRequest>([](auto& m) { m.bufferResponses = m.holdResponses = true; }),
         meta + "connect" + noClient + "}"},
        {with<ConnectResponse>([](auto& m) {
             const Advice top{static_cast<Advice::Reconnect>(7), -1, 0, false, {}};  // reconnect, timeout, interval, ...
             m.advice = std::make_shared<BayeuxAdvice>(BayeuxAdvice{top, {}});
         }),
         meta + "connect" + noClient + ",\"successful\":false,"
                "\"advice\":{\"reconnect\":\"error\",\"interval\":0,\"multipleClients\":false}}"},
    };
    for (auto& [message, expected] : cases) {
        EXPECT_EQ(textOf(std::move(message)), expected);
    }
}

TEST(Serialize, StringsAreEscapedForHtmlAndBrokenUtf8IsReplaced) {
    const std::string bad = "\xEF\xBF\xBD";
    const std::pair<std::string, std::string> cases[] = {
        {"/a&b", "/a\\u0026b"}, {"'<=>", "\\u0027\\u003c\\u003d\\u003e"}, {"\"\\/", "\\\"\\\\/"},
        {"\n\t\r\b\f", "\\n\\t\\r\\b\\f"}, {std::string("\0\x1f\x01", 3), "\\u0000\\u001f\\u0001"},
        {"\x7F~ ", "\x7F~ "}, {"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
        {"\xC3(\x80", bad + "(" + bad}, {"\xF4\x90\x80\x80", bad + bad + bad + bad}, {"\xED\xA0\x80", bad + bad + bad},
        {"\xE0\xA0\x80\xF0\x90\x80\x80", "\xE0\xA0\x80\xF0\x90\x80\x80"},
    };
    // Each also behind and before plain text that fills the first sixteen-byte step and more.
    for (const std::string padding : {"", "plain text, at le", "plain text, at least 32 bytes lon"}) {
        for (const auto& [raw, escaped] : cases) {
            const std::string padded = padding + raw + padding;
            EXPECT_EQ(textOf(with<DisconnectRequest>([&padded](auto& m) { m.clientId = padded; })),
                      "{\"channel\":\"/meta/disconnect\",\"clientId\":\"" + padding + escaped + padding + "\"}")
                << "input of " << padded.size() << " bytes: " << padded;
        }
    }
}

TEST(Serialize, ReceiversCopiesShareTheOriginalsTextUntilTheyDiffer) {
    auto original = std::make_shared<PublishRequest>("/room");
    original->id = "7";
    original->clientId = "sender";
    original->data = std::make_shared<DataBuffer>(std::string("{\"n\":1}"));
    const std::shared_ptr<const PublishRequest> published = original;
    using Change = void (*)(PublishRequest&);
    const std::pair<Change, std::string> cases[] = {
        {[](PublishRequest&) {}, "{\"channel\":\"/room\",\"id\":\"7\",\"clientId\":null,\"data\":{\"n\":1}}"},
        {[](PublishRequest& m) { m.clientId = "k"; }, "{\"channel\":\"/room\",\"id\":\"7\",\"clientId\":\"k\",\"data\":{\"n\":1}}"},
        {[](PublishRequest& m) { m.channel = "/b"; }, "{\"channel\":\"/b\",\"id\":\"7\",\"clientId\":null,\"data\":{\"n\":1}}"},
        {[](PublishRequest& m) { m.id.clear(); }, "{\"channel\":\"/room\",\"clientId\":null,\"data\":{\"n\":1}}"},
        {[](PublishRequest& m) { m.data = std::make_shared<DataBuffer>(std::string("2")); },
         "{\"channel\":\"/room\",\"id\":\"7\",\"clientId\":null,\"data\":2}"},
    };
    for (const auto& [change, expected] : cases) {
        auto copy = std::make_unique<PublishRequest>(published, PublishRequest::withoutSender);
        change(*copy);
        EXPECT_EQ(textOf(std::move(copy)), expected);
    }
    EXPECT_EQ(textOf(std::make_unique<PublishRequest>(*original)),
              "{\"channel\":\"/room\",\"id\":\"7\",\"clientId\":\"sender\",\"data\":{\"n\":1}}")
        << "the original itself still carries its sender";
}

TEST(Serialize, AConnectReplyWrittenFromItsIdsIsTheResponsesText) {
    for (const std::string messageId : {"", "7", "a\"<b"}) {
        for (const std::string clientId : {"", "k1", "\xC3("}) {
            DataBuffer out;
            serializeConnectReply(messageId, clientId, out);
            EXPECT_EQ(out.str(), textOf(makeConnectReply(messageId, clientId))) << messageId << " " << clientId;
        }
    }
    EXPECT_EQ(textOf(makeConnectReply("7", "k1")),
              "{\"channel\":\"/meta/connect\",\"id\":\"7\",\"clientId\":\"k1\",\"successful\":true}");
}

TEST(Serialize, RefusesWhatIsNoSingleMessageAndKeepsTheBuffer) {
    DataBuffer out(std::string("[x"));
    auto batch = with<BayeuxContainer>([](auto& m) { m.messages.push_back(std::make_unique<DisconnectResponse>()); });
    EXPECT_EQ(test_support::errorOf<std::invalid_argument>([&] { serializeBayeuxMessage(std::move(batch), out); }),
              "Unknown bayeux type: " + common::mangledTypeName(typeid(BayeuxContainer)));
    EXPECT_NE(batch, nullptr);
    EXPECT_EQ(out.str(), "[x");
}

}  // namespace
}  // namespace korvane::bayeux
