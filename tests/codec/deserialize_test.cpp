#include "korvane/codec/deserialize.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

namespace korvane::bayeux {
namespace {

using common::DataBuffer;

std::unique_ptr<Message> parse(const std::string& text, bool isRequest = true) {
    DataBuffer buffer(text);
    return deserializeBayeuxMessage(buffer, isRequest);
}

std::string failureOf(const std::string& text, bool isRequest = true) {
    try {
        parse(text, isRequest);
    } catch (const std::invalid_argument& failure) {
        return failure.what();
    }
    return "<accepted>";
}

template <class T>
T& as(const std::unique_ptr<Message>& message) {
    T* typed = dynamic_cast<T*>(message.get());
    if (typed == nullptr) {
        throw std::logic_error(std::string("unexpected class ") + typeid(*message.get()).name());
    }
    return *typed;
}

TEST(Deserialize, ChannelChoosesTheClassOnEitherSide) {
    struct Case {
        std::string channel;
        const std::type_info& request;
        const std::type_info& response;
    };
    const Case cases[] = {
        {"/meta/handshake", typeid(HandshakeRequest), typeid(HandshakeResponse)},
        {"/meta/connect", typeid(ConnectStreamRequest), typeid(ConnectStreamResponse)},
        {"/meta/disconnect", typeid(DisconnectRequest), typeid(DisconnectResponse)},
        {"/meta/subscribe", typeid(SubscribeRequest), typeid(SubscribeResponse)},
        {"/meta/unsubscribe", typeid(UnsubscribeRequest), typeid(UnsubscribeResponse)},
        {"/meta/foo", typeid(PublishRequest), typeid(PublishRequest)},
        {"/meta/connect/", typeid(PublishRequest), typeid(PublishRequest)},
        {"/chat/room1", typeid(PublishRequest), typeid(PublishRequest)},
    };
    for (const Case& c : cases) {
        std::string text = "{\"channel\":\"" + c.channel + "\"}";
        auto request = parse(text, true);
        auto response = parse(text, false);
        EXPECT_TRUE(typeid(*request.get()) == c.request) << c.channel;
        EXPECT_TRUE(typeid(*response.get()) == c.response) << c.channel;
        EXPECT_EQ(dynamic_cast<BayeuxBase&>(*request).channel, c.channel);
    }
    // A channel written with an escape is decoded before it is compared.
    EXPECT_TRUE(typeid(*parse("{\"channel\":\"\\/meta\\/handshake\"}").get()) == typeid(HandshakeRequest));
    auto nullChannel = parse("{\"channel\":null}");
    EXPECT_EQ(as<PublishRequest>(nullChannel).channel, "");
}

TEST(Deserialize, RefusesMalformedBodiesWithTheirTexts) {
    const std::pair<std::string, std::string> cases[] = {
        {"", "JSON parsing error, expected array or object"},
        {"7", "JSON parsing error, expected array or object"},
        {" \"x\"", "JSON parsing error, expected array or object"},
        {std::string("\0{}", 3), "JSON parsing error, expected array or object"},
        {"[]", "Invalid JSON, expected '{'"},
        {"[1]", "Invalid JSON, expected '{'"},
        {"[", "Invalid JSON, expected '{'"},
        {"[{\"channel\":\"/a\"},2]", "Invalid JSON, expected '{'"},
        {"{}", "JSON parsing error, invalid bayeux request"},
        {"{\"id\":\"1\"}", "JSON parsing error, invalid bayeux request"},
        {"{\"id\":\"1\"", "JSON parsing error, invalid bayeux request"},
        {"{\"client\\u0049d\":\"x\"}", "JSON parsing error, invalid bayeux request"},
        {"[{\"channel\":\"/foo\"}", "Invalid JSON, unexpected end"},
        {"[{\"channel\":\"/foo\"}  ", "Invalid JSON, unexpected end"},
        {"[{\"channel\":\"/foo\"},", "JSON parsing error, invalid bayeux message array"},
        {"[{\"channel\":\"/foo\"};{\"channel\":\"/foo\"}]", "JSON parsing error, invalid bayeux message array"},
        {"[{\"channel\":\"/foo\"},{\"id\":1}]", "JSON parsing error, invalid bayeux request"},
        {"{\"channel\":\"/foo\"", "JSON message parsing error, invalid bayeux request"},
        {"{\"channel\":\"/foo\" \"id\":\"1\"}", "JSON message parsing error, invalid bayeux request"},
        {"{\"x\":1 \"channel\":\"/foo\"}", "JSON message parsing error, invalid bayeux request"},
        {"{\"channel\":\"/foo\",}", "Invalid JSON, expected '\"'"},
        {"{\"channel\":7}", "Invalid JSON, expected '\"'"},
        {"{\"channel\":\"/meta/subscribe\",\"subscription\":[\"/a\"]}", "Invalid JSON, expected '\"'"},
        {"{\"channel\":\"/foo\",\"successful\":\"yes\"}", "Invalid JSON boolean"},
        {"{\"channel\":\"/foo\",\"successful\":null}", "Invalid JSON boolean"},
        {"{\"channel\":\"/foo\",\"x\":[1,]}", "Invalid JSON, expected a number"},
        {"{\"channel\":\"/foo\",\"data\":{\"a\" 1}}", "Invalid JSON, expected ':'"},
        {"{\"channel\":\"/foo\",\"data\":[1 2]}", "JSON parsing error, invalid collection."},
        {"{\"channel\":\"/foo\",\"id\":\"\\ud83d\"}", "Invalid JSON surrogate pair"},
        {"{\"channel\":\"/meta/connect\",\"advice\":{\"interval\":1.5}}", "Invalid JSON, expected an integer"},
        {"{\"channel\":\"/meta/connect\",\"advice\":{\"timeout\":1e-1}}", "Invalid JSON, expected an integer."},
        {"{\"channel\":\"/meta/connect\",\"advice\":{\"multipleClients\":1}}", "Invalid JSON boolean"},
        {"{\"channel\":\"/meta/connect\",\"advice\":null}", "Invalid JSON, expected '{'"},
        {"{\"channel\":\"/meta/connect\",\"advice\":{\"lp\":{\"timeout\":\"1\"}}}", "Invalid JSON, expected a number"},
        {"{\"channel\":\"/meta/handshake\",\"supportedConnectionTypes\":\"long-polling\"}",
         "Invalid JSON, expected '['"},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(failureOf(text), expected) << "input: " << text;
    }
    EXPECT_EQ(failureOf("{\"channel\":\"/meta/subscribe\",\"successful\":0}", false), "Invalid JSON boolean");
    EXPECT_EQ(failureOf("{\"channel\":\"/meta/subscribe\",\"successful\":0}", true), "<accepted>");
}

TEST(Deserialize, AcceptsWhatTheScannerLetsThrough) {
    const std::string accepted[] = {
        "{\"channel\":\"/foo\"} trailing",
        "[{\"channel\":\"/foo\"}] trailing",
        " \t\r\n{ \"channel\" : \"/foo\" , \"id\" : \"1\" } ",
        "{\"channel\":\"/foo\",\"data\":{}",
        "{\"channel\":\"/foo\",\"data\":[1,",
        "{\"channel\":\"/foo\",",
        "{\"channel\":\"/foo\",\"ext\":{\"ack\":true},\"unknown\":[null,false,-1.5e3,\"\\q\"]}",
        "{\"channel\":\"/meta/subscribe\",\"subscription\":null}",
    };
    for (const std::string& text : accepted) {
        EXPECT_EQ(failureOf(text), "<accepted>") << "input: " << text;
    }
}

TEST(Deserialize, PublishKeepsTheDataBytesAsTheyStand) {
    auto message = parse("{\"channel\":\"/foo\",\"data\":{\"a\" : 1}}");
    auto& publish = as<PublishRequest>(message);
    ASSERT_NE(publish.data, nullptr);
    EXPECT_EQ(publish.data->str(), "{\"a\" : 1}");

    auto reordered = parse("{\"data\":  [1,2] ,\"id\":\"7\",\"channel\":\"/foo\",\"clientId\":\"c1\",\"error\":\"x\"}");
    auto& late = as<PublishRequest>(reordered);
    EXPECT_EQ(late.channel, "/foo");
    EXPECT_EQ(late.id, "7");
    EXPECT_EQ(late.clientId, "c1");
    EXPECT_EQ(late.data->str(), "[1,2]");

    auto noData = parse("{\"channel\":\"/foo\"}");
    ASSERT_NE(as<PublishRequest>(noData).data, nullptr);
    EXPECT_TRUE(as<PublishRequest>(noData).data->empty());

    auto escaped = parse("{\"channel\":\"/foo\",\"data\":\"\\q\\u12\",\"data\":\"bad \\escape\"}");
    EXPECT_EQ(as<PublishRequest>(escaped).data->str(), "\"bad \\escape\"");

    auto cutOff = parse("{\"channel\":\"/foo\",\"data\":{}");
    EXPECT_EQ(as<PublishRequest>(cutOff).data->str(), "{}");

    auto response = parse("{\"channel\":\"/foo\",\"successful\":false,\"error\":\"denied\",\"data\":1,\"id\":\"3\"}");
    auto& publishResponse = as<PublishResponse>(response);
    EXPECT_FALSE(publishResponse.successful);
    EXPECT_EQ(publishResponse.error, "denied");
    EXPECT_EQ(publishResponse.id, "3");
    EXPECT_EQ(publishResponse.channel, "/foo");

    // The publish parser reads `channel` itself, so the last one wins.
    auto repeated = parse("{\"channel\":\"/a\",\"id\":\"1\",\"id\":\"2\",\"channel\":\"/b\"}");
    EXPECT_EQ(as<PublishRequest>(repeated).channel, "/b");
    EXPECT_EQ(as<PublishRequest>(repeated).id, "2");
}

TEST(Deserialize, MetaRequestsReadTheirMembers) {
    auto handshake = parse(
        "{\"channel\":\"/meta/handshake\",\"version\":\"1.0\",\"minimumVersion\":\"0.9\",\"id\":\"1\","
        "\"supportedConnectionTypes\":[\"long-polling\",null],\"supportedConnectionTypes\":[\"websocket\"],"
        "\"ext\":{\"x\":[1]},\"successful\":true}");
    auto& h = as<HandshakeRequest>(handshake);
    EXPECT_EQ(h.version, "1.0");
    EXPECT_EQ(h.minimumVersion, "0.9");
    EXPECT_EQ(h.id, "1");
    EXPECT_EQ(h.supportedConnectionTypes, std::vector<std::string>{"websocket"});

    auto connect = parse(
        "{\"channel\":\"/meta/connect\",\"clientId\":\"abc\",\"connectionType\":\"long-polling\","
        "\"advice\":{\"timeout\":0}}");
    auto& c = as<ConnectStreamRequest>(connect);
    EXPECT_EQ(c.clientId, "abc");
    EXPECT_EQ(c.connectionType, "long-polling");
    ASSERT_NE(c.advice, nullptr);
    EXPECT_EQ(c.advice->timeout, 0);
    EXPECT_EQ(c.advice->interval, -1);
    EXPECT_FALSE(c.bufferResponses);
    EXPECT_FALSE(c.holdResponses);

    auto subscribe = parse("{\"channel\":\"/meta/subscribe\",\"subscription\":\"/a/*\",\"clientId\":\"c\"}");
    EXPECT_EQ(as<SubscribeRequest>(subscribe).subscription, "/a/*");
    EXPECT_EQ(as<SubscribeRequest>(subscribe).clientId, "c");
    auto unsubscribe = parse("{\"channel\":\"/meta/unsubscribe\",\"subscription\":\"/a/**\",\"id\":\"9\"}");
    EXPECT_EQ(as<UnsubscribeRequest>(unsubscribe).subscription, "/a/**");
    EXPECT_EQ(as<UnsubscribeRequest>(unsubscribe).id, "9");
    auto disconnect = parse("{\"channel\":\"/meta/disconnect\",\"clientId\":\"c\",\"subscription\":\"/x\"}");
    EXPECT_EQ(as<DisconnectRequest>(disconnect).clientId, "c");
}

TEST(Deserialize, MetaResponsesReadOutcomeAndAdvice) {
    auto handshake = parse(
        "{\"channel\":\"/meta/handshake\",\"successful\":true,\"clientId\":\"k\",\"version\":\"1.0\","
        "\"supportedConnectionTypes\":[\"long-polling\"],\"advice\":{\"reconnect\":\"handshake\"}}",
        false);
    auto& h = as<HandshakeResponse>(handshake);
    EXPECT_TRUE(h.successful);
    EXPECT_EQ(h.clientId, "k");
    EXPECT_EQ(h.supportedConnectionTypes, std::vector<std::string>{"long-polling"});
    ASSERT_NE(h.advice, nullptr);
    EXPECT_EQ(h.advice->reconnect, Advice::Handshake);

    auto subscribed = parse(
        "{\"channel\":\"/meta/unsubscribe\",\"successful\":false,\"error\":\"403::denied\",\"subscription\":\"/a\"}",
        false);
    auto& u = as<UnsubscribeResponse>(subscribed);
    EXPECT_FALSE(u.successful);
    EXPECT_EQ(u.error, "403::denied");
    EXPECT_EQ(u.subscription, "/a");
    EXPECT_EQ(u.advice, nullptr);

    auto connect = parse(
        "{\"channel\":\"/meta/connect\",\"successful\":true,"
        "\"advice\":{\"reconnect\":\"retry\",\"long-polling\":{\"timeout\":0,\"nested\":{\"timeout\":5}},"
        "\"interval\":5,\"long-polling\":{\"timeout\":7},\"hosts\":[\"a\"],\"hosts\":[\"b\",\"c\"],"
        "\"websocket\":{\"reconnect\":\"none\",\"multipleClients\":true,\"interval\":2e3}}}",
        false);
    auto& advice = *as<ConnectStreamResponse>(connect).advice;
    EXPECT_EQ(advice.reconnect, Advice::Retry);
    EXPECT_EQ(advice.interval, 5);
    EXPECT_EQ(advice.timeout, -1);
    EXPECT_EQ(advice.hosts, (std::vector<std::string>{"b", "c"}));
    ASSERT_EQ(advice.transportAdvice.size(), 2u);
    EXPECT_EQ(advice.transportAdvice.at("long-polling").timeout, 0);  // the first entry of a name stays
    EXPECT_EQ(advice.transportAdvice.at("websocket").interval, 2000);
    EXPECT_TRUE(advice.transportAdvice.at("websocket").multipleClients);
    EXPECT_EQ(advice.transportAdvice.at("websocket").reconnect, Advice::None);

    const std::pair<std::string, Advice::Reconnect> reconnects[] = {
        {"\"retry\"", Advice::Retry}, {"\"handshake\"", Advice::Handshake}, {"\"none\"", Advice::None},
        {"\"Retry\"", Advice::None},  {"\"\"", Advice::None},               {"null", Advice::None},
    };
    for (const auto& [text, expected] : reconnects) {
        auto message = parse("{\"channel\":\"/meta/connect\",\"advice\":{\"reconnect\":" + text + "}}", false);
        EXPECT_EQ(as<ConnectStreamResponse>(message).advice->reconnect, expected) << text;
    }
}

TEST(Deserialize, ArraysGiveABareMessageOrAContainer) {
    auto single = parse("[{\"channel\":\"/foo\"}]");
    EXPECT_EQ(as<PublishRequest>(single).channel, "/foo");

    auto batch = parse(" [ {\"channel\":\"/foo\"} , {\"channel\":\"/meta/connect\",\"id\":\"2\"},{\"channel\":\"/bar\"} ]");
    auto& container = as<BayeuxContainer>(batch);
    ASSERT_EQ(container.messages.size(), 3u);
    EXPECT_EQ(as<PublishRequest>(container.messages[0]).channel, "/foo");
    EXPECT_EQ(as<ConnectStreamRequest>(container.messages[1]).id, "2");
    EXPECT_EQ(as<PublishRequest>(container.messages[2]).channel, "/bar");
}

std::string repeated(const std::string& piece, std::size_t times) {
    std::string text;
    text.reserve(piece.size() * times);
    for (std::size_t i = 0; i < times; ++i) {
        text += piece;
    }
    return text;
}

TEST(Deserialize, MillionLevelsOfNestingInABodyAreAcceptedOrRefusedByTheRules) {
    constexpr std::size_t levels = 1000000;
    std::string arrays = repeated("[", levels) + "1" + repeated("]", levels);
    std::string objects = repeated("{\"k\":", levels) + "true" + repeated("}", levels);

    auto publish = parse("{\"channel\":\"/deep\",\"data\":" + arrays + "}");
    EXPECT_EQ(as<PublishRequest>(publish).data->str(), arrays);
    auto nestedUnknown = parse("{\"x\":" + objects + ",\"channel\":\"/meta/subscribe\",\"deep\":" + objects +
                               ",\"subscription\":\"/a\"}");
    EXPECT_EQ(as<SubscribeRequest>(nestedUnknown).subscription, "/a");
    auto inAdvice = parse("{\"channel\":\"/meta/connect\",\"advice\":{\"lp\":{\"x\":" + arrays + "},\"timeout\":3}}");
    EXPECT_EQ(as<ConnectStreamRequest>(inAdvice).advice->timeout, 3);

    // Cut off by the end of the buffer: every level ends silently, and the last byte then
    // decides, as it stands in for the closing brace of the message.
    auto cutOff = parse("{\"channel\":\"/deep\",\"data\":" + repeated("{\"k\":", levels) + "1}");
    EXPECT_EQ(as<PublishRequest>(cutOff).data->size, levels * 5 + 2);
    EXPECT_EQ(failureOf("{\"channel\":\"/deep\",\"data\":" + repeated("[", levels) + "1"),
              "JSON message parsing error, invalid bayeux request");

    EXPECT_EQ(failureOf("{\"channel\":\"/deep\",\"data\":" + repeated("[", levels) + "1" +
                        repeated("]", levels - 1) + "}}"),
              "JSON parsing error, invalid collection.");
    EXPECT_EQ(failureOf("{\"channel\":\"/deep\",\"data\":" + repeated("{\"k\":", levels) + "0"),
              "Invalid JSON, expected a number");
    EXPECT_EQ(failureOf(repeated("[", levels) + "]"), "Invalid JSON, expected '{'");
    EXPECT_EQ(failureOf(repeated("{\"k\":", levels) + "1"), "JSON parsing error, invalid bayeux request");
}

}  // namespace
}  // namespace korvane::bayeux
