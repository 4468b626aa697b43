#include "korvane/codec/serialize.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <typeinfo>

#include "korvane/codec/deserialize.h"
#include "korvane/frame/type_name.h"

namespace korvane::bayeux {
namespace {

using common::DataBuffer;

std::string textOf(std::unique_ptr<Message> message) {
    DataBuffer out;
    serializeBayeuxMessage(std::move(message), out);
    return out.str();
}

std::shared_ptr<BayeuxAdvice> adviceOf(Advice::Reconnect reconnect, std::int64_t interval, std::int64_t timeout) {
    auto advice = std::make_shared<BayeuxAdvice>();
    advice->reconnect = reconnect;
    advice->interval = interval;
    advice->timeout = timeout;
    return advice;
}

TEST(Serialize, RequestsHaveTheirExactBytes) {
    auto publish = std::make_unique<PublishRequest>("/foo");
    publish->data = std::make_shared<DataBuffer>(std::string("{\"a\" : 1}"));
    EXPECT_EQ(textOf(std::move(publish)), "{\"channel\":\"/foo\",\"clientId\":null,\"data\":{\"a\" : 1}}");

    auto emptyData = std::make_unique<PublishRequest>("/foo");
    emptyData->data = std::make_shared<DataBuffer>();
    emptyData->id = "4";
    emptyData->clientId = "k";
    EXPECT_EQ(textOf(std::move(emptyData)), "{\"channel\":\"/foo\",\"id\":\"4\",\"clientId\":\"k\"}");
    EXPECT_EQ(textOf(std::make_unique<PublishRequest>("/foo")), "{\"channel\":\"/foo\",\"clientId\":null}");

    auto subscribe = std::make_unique<SubscribeRequest>("/a/*", "c1");
    subscribe->id = "2";
    EXPECT_EQ(textOf(std::move(subscribe)),
              "{\"channel\":\"/meta/subscribe\",\"id\":\"2\",\"clientId\":\"c1\",\"subscription\":\"/a/*\"}");
    EXPECT_EQ(textOf(std::make_unique<UnsubscribeRequest>("", "")),
              "{\"channel\":\"/meta/unsubscribe\",\"clientId\":null,\"subscription\":\"\"}");

    auto connect = std::make_unique<ConnectRequest>();
    connect->clientId = "k";
    connect->connectionType = "long-polling";
    EXPECT_EQ(textOf(std::move(connect)),
              "{\"channel\":\"/meta/connect\",\"clientId\":\"k\",\"connectionType\":\"long-polling\"}");

    auto connectStream = std::make_unique<ConnectStreamRequest>();
    connectStream->advice = adviceOf(Advice::None, -1, 0);
    connectStream->bufferResponses = true;
    connectStream->holdResponses = true;
    EXPECT_EQ(textOf(std::move(connectStream)),
              "{\"channel\":\"/meta/connect\",\"clientId\":null,"
              "\"advice\":{\"reconnect\":\"none\",\"timeout\":0,\"multipleClients\":false}}");

    auto handshake = std::make_unique<HandshakeRequest>();
    handshake->version = "1.0";
    handshake->supportedConnectionTypes = {"long-polling", "callback-polling"};
    EXPECT_EQ(textOf(std::move(handshake)),
              "{\"channel\":\"/meta/handshake\",\"clientId\":null,\"version\":\"1.0\","
              "\"supportedConnectionTypes\":[\"long-polling\",\"callback-polling\"]}");

    auto disconnect = std::make_unique<DisconnectRequest>();
    disconnect->id = "3";
    disconnect->clientId = "k";
    EXPECT_EQ(textOf(std::move(disconnect)), "{\"channel\":\"/meta/disconnect\",\"id\":\"3\",\"clientId\":\"k\"}");
}

TEST(Serialize, ResponsesHaveTheirExactBytes) {
    EXPECT_EQ(textOf(std::make_unique<DisconnectResponse>()), "{\"channel\":\"/meta/disconnect\",\"clientId\":null,\"successful\":false}");
    auto disconnected = std::make_unique<DisconnectResponse>();
    disconnected->successful = true;
    EXPECT_EQ(textOf(std::move(disconnected)),
              "{\"channel\":\"/meta/disconnect\",\"clientId\":null,\"successful\":true}");

    auto subscribed = std::make_unique<SubscribeResponse>();
    subscribed->id = "7";
    subscribed->clientId = "abc";
    subscribed->error = "No such clientId.";
    subscribed->subscription = "/a/b";
    EXPECT_EQ(textOf(std::move(subscribed)),
              "{\"channel\":\"/meta/subscribe\",\"id\":\"7\",\"clientId\":\"abc\",\"successful\":false,"
              "\"error\":\"No such clientId.\",\"subscription\":\"/a/b\"}");

    auto unsubscribed = std::make_unique<UnsubscribeResponse>();
    unsubscribed->successful = true;
    unsubscribed->subscription = "/x";
    unsubscribed->advice = adviceOf(Advice::None, -1, -1);
    EXPECT_EQ(textOf(std::move(unsubscribed)),
              "{\"channel\":\"/meta/unsubscribe\",\"clientId\":null,\"successful\":true,\"subscription\":\"/x\","
              "\"advice\":{\"reconnect\":\"none\",\"multipleClients\":false}}");

    auto published = std::make_unique<PublishResponse>("/chat/room1");
    published->id = "5";
    published->successful = true;
    EXPECT_EQ(textOf(std::move(published)),
              "{\"channel\":\"/chat/room1\",\"id\":\"5\",\"clientId\":null,\"successful\":true}");

    auto connected = std::make_unique<ConnectResponse>();
    connected->error = "e";
    connected->advice = adviceOf(Advice::Retry, 0, -1);
    EXPECT_EQ(textOf(std::move(connected)),
              "{\"channel\":\"/meta/connect\",\"clientId\":null,\"successful\":false,\"error\":\"e\","
              "\"advice\":{\"reconnect\":\"retry\",\"interval\":0,\"multipleClients\":false}}");

    auto streamed = std::make_unique<ConnectStreamResponse>();
    streamed->clientId = "k";
    streamed->successful = true;
    streamed->advice = adviceOf(Advice::Retry, 2000, 0);
    Advice longPolling;
    longPolling.reconnect = Advice::Handshake;
    longPolling.multipleClients = true;
    longPolling.hosts = {"h1", "h\"2"};
    streamed->advice->transportAdvice.emplace("long-polling", longPolling);
    EXPECT_EQ(textOf(std::move(streamed)),
              "{\"channel\":\"/meta/connect\",\"clientId\":\"k\",\"successful\":true,"
              "\"advice\":{\"reconnect\":\"retry\",\"interval\":2000,\"timeout\":0,\"multipleClients\":false,"
              "\"long-polling\":{\"reconnect\":\"handshake\",\"multipleClients\":true,\"hosts\":[\"h1\",\"h\"2\"]}}}");

    auto handshaken = std::make_unique<HandshakeResponse>();
    handshaken->clientId = "k";
    handshaken->successful = true;
    handshaken->version = "1.0";
    handshaken->minimumVersion = "1.0";
    handshaken->supportedConnectionTypes = {"long-polling"};
    handshaken->advice = adviceOf(static_cast<Advice::Reconnect>(7), -1, 30000);
    handshaken->advice->hosts = {"x"};
    EXPECT_EQ(textOf(std::move(handshaken)),
              "{\"channel\":\"/meta/handshake\",\"clientId\":\"k\",\"successful\":true,\"version\":\"1.0\","
              "\"minimumVersion\":\"1.0\",\"supportedConnectionTypes\":[\"long-polling\"],"
              "\"advice\":{\"reconnect\":\"error\",\"timeout\":30000,\"multipleClients\":false,\"hosts\":[\"x\"]}}");
}

TEST(Serialize, StringsAreEscapedForHtmlAndBrokenUtf8IsReplaced) {
    const std::string replacement = "\xEF\xBF\xBD";
    const std::pair<std::string, std::string> cases[] = {
        {"/a&b", "/a\\u0026b"},
        {"'<=>", "\\u0027\\u003c\\u003d\\u003e"},
        {"\"\\/", "\\\"\\\\/"},
        {"\n\t\r\b\f", "\\n\\t\\r\\b\\f"},
        {std::string("\0\x1f\x01", 3), "\\u0000\\u001f\\u0001"},
        {"\x7F~ ", "\x7F~ "},
        {"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
        {"\xC3(", replacement + "("},
        {"\x80", replacement},
        {"\xFE\xFF", replacement + replacement},
        {"\xE2\x82", replacement + replacement},
        {"\xF4\x90\x80\x80", replacement + replacement + replacement + replacement},
        {"\xC1\x81\xC0\xA2\xC0\x80", "A\\\"\\u0000"},
        {"\xE0\x80\xA6", "\\u0026"},
        {"\xF8\x80\x80\x81\x81\xFC\x80\x80\x80\x81\x81", "AA"},
        {"\xF8\x88\x80\x80\x80", replacement + replacement + replacement + replacement + replacement},
        {"\xED\xA0\x80", "\xED\xA0\x80"},
        {"\xE0\x82\xA9", "\xE0\x82\xA9"},
    };
    for (const auto& [raw, escaped] : cases) {
        auto message = std::make_unique<DisconnectRequest>();
        message->clientId = raw;
        EXPECT_EQ(textOf(std::move(message)),
                  "{\"channel\":\"/meta/disconnect\",\"clientId\":\"" + escaped + "\"}")
            << "input of " << raw.size() << " bytes: " << raw;
    }
}

TEST(Serialize, RefusesWhatIsNoSingleMessageAndKeepsTheBuffer) {
    DataBuffer out(std::string("[x"));
    auto container = std::make_unique<BayeuxContainer>();
    container->messages.push_back(std::make_unique<DisconnectResponse>());
    std::unique_ptr<Message> batch = std::move(container);
    try {
        serializeBayeuxMessage(std::move(batch), out);
        ADD_FAILURE() << "a container is no single message";
    } catch (const std::invalid_argument& failure) {
        EXPECT_EQ(std::string(failure.what()),
                  "Unknown bayeux type: " + common::mangledTypeName(typeid(BayeuxContainer)));
    }
    EXPECT_NE(batch, nullptr);
    EXPECT_EQ(out.str(), "[x");
    EXPECT_THROW(serializeBayeuxMessage(std::unique_ptr<Message>(), out), std::bad_typeid);

    std::unique_ptr<Message> survivor = std::make_unique<DisconnectRequest>();
    serializeBayeuxMessage(std::move(survivor), out);
    EXPECT_NE(survivor, nullptr);
}

TEST(Serialize, PublishReservesOnceForHeadAndData) {
    auto publish = std::make_unique<PublishRequest>("/foo");
    publish->data = std::make_shared<DataBuffer>(std::string("[1]"));
    DataBuffer out;
    serializePublishRequest(publish.get(), out);
    EXPECT_EQ(out.str(), "{\"channel\":\"/foo\",\"clientId\":null,\"data\":[1]}");
    EXPECT_GE(out.capacity, 4u + 14u + 3u + 8u);
}

template <class T>
T& as(const std::unique_ptr<Message>& message) {
    T* typed = dynamic_cast<T*>(message.get());
    if (typed == nullptr) {
        throw std::logic_error("unexpected class");
    }
    return *typed;
}

std::unique_ptr<Message> reread(std::unique_ptr<Message> message, bool isRequest) {
    DataBuffer out;
    serializeBayeuxMessage(std::move(message), out);
    return deserializeBayeuxMessage(out, isRequest);
}

void expectSameAdvice(const Advice& a, const Advice& b) {
    EXPECT_EQ(a.reconnect, b.reconnect);
    EXPECT_EQ(a.interval, b.interval);
    EXPECT_EQ(a.timeout, b.timeout);
    EXPECT_EQ(a.multipleClients, b.multipleClients);
    EXPECT_EQ(a.hosts, b.hosts);
}

TEST(Serialize, RoundTripsThroughTheReader) {
    auto publish = std::make_unique<PublishRequest>("/chat/<room> & 'x'\xC3\xA9");
    publish->id = "id\n\"1\"";
    publish->clientId = std::string("c\0\x1f", 3);
    publish->data = std::make_shared<DataBuffer>(std::string("{ \"text\" : \"a\\u0026b\\q\", \"n\":[1, 2e3] }"));
    auto publishBack = reread(std::move(publish), true);
    auto& p = as<PublishRequest>(publishBack);
    EXPECT_EQ(p.channel, "/chat/<room> & 'x'\xC3\xA9");
    EXPECT_EQ(p.id, "id\n\"1\"");
    EXPECT_EQ(p.clientId, std::string("c\0\x1f", 3));
    EXPECT_EQ(p.data->str(), "{ \"text\" : \"a\\u0026b\\q\", \"n\":[1, 2e3] }");

    auto handshake = std::make_unique<HandshakeResponse>();
    handshake->clientId = "k";
    handshake->successful = true;
    handshake->error = "\xF0\x9F\x98\x80";
    handshake->supportedConnectionTypes = {"long-polling", "websocket"};
    handshake->advice = adviceOf(Advice::Handshake, 5, 6);
    handshake->advice->multipleClients = true;
    Advice websocket;
    websocket.timeout = 0;
    websocket.hosts = {"h"};
    Advice longPolling;
    longPolling.reconnect = Advice::Retry;
    longPolling.interval = 1000;
    handshake->advice->transportAdvice = {{"websocket", websocket}, {"long-polling", longPolling}};
    auto handshakeBack = reread(std::move(handshake), false);
    auto& h = as<HandshakeResponse>(handshakeBack);
    EXPECT_TRUE(h.successful);
    EXPECT_EQ(h.error, "\xF0\x9F\x98\x80");
    EXPECT_EQ(h.supportedConnectionTypes, (std::vector<std::string>{"long-polling", "websocket"}));
    ASSERT_NE(h.advice, nullptr);
    Advice expected;
    expected.reconnect = Advice::Handshake;
    expected.interval = 5;
    expected.timeout = 6;
    expected.multipleClients = true;
    expectSameAdvice(*h.advice, expected);
    ASSERT_EQ(h.advice->transportAdvice.size(), 2u);
    expectSameAdvice(h.advice->transportAdvice.at("websocket"), websocket);
    expectSameAdvice(h.advice->transportAdvice.at("long-polling"), longPolling);

    auto unsubscribe = std::make_unique<UnsubscribeRequest>("/a/**", "k");
    auto unsubscribeBack = reread(std::move(unsubscribe), true);
    EXPECT_EQ(as<UnsubscribeRequest>(unsubscribeBack).subscription, "/a/**");
    EXPECT_EQ(as<UnsubscribeRequest>(unsubscribeBack).clientId, "k");
}

}  // namespace
}  // namespace korvane::bayeux
