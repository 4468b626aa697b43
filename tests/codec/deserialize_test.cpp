#include "korvane/codec/deserialize.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

#include "korvane/codec/serialize.h"
#include "korvane/frame/type_name.h"
#include "support/test_helpers.h"

namespace korvane::bayeux {
namespace {

using common::DataBuffer;

std::unique_ptr<Message> parse(const std::string& text, bool isRequest = true) {
    DataBuffer buffer(text);
    return deserializeBayeuxMessage(buffer, isRequest);
}

std::string failureOf(const std::string& text, bool isRequest = true) {
    return test_support::errorOf<std::invalid_argument>([&] { parse(text, isRequest); });
}

// A response read and written back.
std::string rewritten(const std::string& text) {
    DataBuffer out;
    serializeBayeuxMessage(parse(text, false), out);
    return out.str();
}

std::string classOf(const std::unique_ptr<Message>& message) {
    const std::string name = common::demangledTypeName(typeid(*message));
    return name.substr(name.rfind(':') + 1);
}

// The class a message was read as, the members every message shares and a response's outcome;
// a batch as its messages' in brackets.
std::string fieldsOf(const std::unique_ptr<Message>& message) {
    if (auto* batch = dynamic_cast<const BayeuxContainer*>(message.get())) {
        std::string text = "[";
        for (const auto& one : batch->messages) {
            text += fieldsOf(one) + (&one == &batch->messages.back() ? "]" : ", ");
        }
        return text;
    }
    const auto& base = dynamic_cast<const BayeuxBase&>(*message);
    std::string text = classOf(message) + " " + base.channel + "|" + base.id + "|" + base.clientId;
    if (const auto* response = dynamic_cast<const BayeuxResponse*>(&base)) {
        text += std::string(response->successful ? "|ok|" : "|failed|") + response->error;
    }
    return text;
}

TEST(Deserialize, ChannelChoosesTheClassOnEitherSide) {
    const std::pair<std::string, std::string> cases[] = {
        {"/meta/handshake", "HandshakeRequest HandshakeResponse"}, {"/meta/foo", "PublishRequest PublishRequest"},
        {"/meta/connect", "ConnectStreamRequest ConnectStreamResponse"}, {"/chat/x", "PublishRequest PublishRequest"},
        {"/meta/disconnect", "DisconnectRequest DisconnectResponse"}, {"/meta/x/", "PublishRequest PublishRequest"},
        {"/meta/subscribe", "SubscribeRequest SubscribeResponse"}, {"/meta/connect/", "PublishRequest PublishRequest"},
        {"/meta/unsubscribe", "UnsubscribeRequest UnsubscribeResponse"},
    };
    for (const auto& [channel, classes] : cases) {
        const std::string text = "{\"channel\":\"" + channel + "\"}";
        EXPECT_EQ(classOf(parse(text)) + " " + classOf(parse(text, false)), classes);
    }
    // A channel written with an escape is decoded before it is compared; an array of one is a bare message.
    EXPECT_EQ(fieldsOf(parse("{\"channel\":\"\\/meta\\/handshake\"}")), "HandshakeRequest /meta/handshake||");
    EXPECT_EQ(fieldsOf(parse("{\"channel\":null}")), "PublishRequest ||");
    EXPECT_EQ(fieldsOf(parse("[{\"channel\":\"/foo\"}]")), "PublishRequest /foo||");
    EXPECT_EQ(fieldsOf(parse(" [ {\"channel\":\"/foo\"} , {\"channel\":\"/meta/connect\",\"id\":\"2\"},"
                             "{\"channel\":\"/b\"} ]")),
              "[PublishRequest /foo||, ConnectStreamRequest /meta/connect|2|, PublishRequest /b||]");
}

TEST(Deserialize, RefusesMalformedBodiesWithTheirTextsAndAcceptsWhatTheScannerLetsThrough) {
    const std::string notBody = "JSON parsing error, expected array or object", brace = "Invalid JSON, expected '{'";
    const std::string invalid = "JSON parsing error, invalid bayeux request", quote = "Invalid JSON, expected '\"'";
    const std::string unended = "JSON message parsing error, invalid bayeux request", ok = "(no exception)";
    const std::string array = "JSON parsing error, invalid bayeux message array", boolean = "Invalid JSON boolean";
    const std::string end = "Invalid JSON, unexpected end", number = "Invalid JSON, expected a number";
    const std::string connect = "{\"channel\":\"/meta/connect\",\"advice\":", foo = "{\"channel\":\"/foo\"";
    const std::string meta = "{\"channel\":\"/meta/", integer = "Invalid JSON, expected an integer";
    const std::pair<std::string, std::string> cases[] = {
        {"", notBody}, {"7", notBody}, {" \"x\"", notBody}, {std::string("\0{}", 3), notBody}, {"[]", brace},
        {"[1]", brace}, {"[", brace}, {"[{\"channel\":\"/a\"},2]", brace}, {"{}", invalid}, {"{\"id\":\"1\"}", invalid},
        {"{\"id\":\"1\"", invalid}, {"{\"client\\u0049d\":\"x\"}", invalid}, {"[" + foo + "}", end}, {foo, unended},
        {"[" + foo + "}  ", end}, {"[" + foo + "},", array}, {"[" + foo + "};" + foo + "}]", array},
        {"[" + foo + "},{\"id\":1}]", invalid}, {foo + " \"id\":\"1\"}", unended}, {foo + ",}", quote},
        {"{\"x\":1 \"channel\":\"/foo\"}", unended}, {"{\"channel\":7}", quote}, {foo + ",\"x\":[1,]}", number},
        {meta + "subscribe\",\"subscription\":[\"/a\"]}", quote}, {foo + ",\"successful\":\"yes\"}", boolean},
        {foo + ",\"successful\":null}", boolean}, {connect + "null}", brace},
        {foo + ",\"data\":{\"a\" 1}}", "Invalid JSON, expected ':'"}, {connect + "{\"interval\":1.5}}", integer},
        {connect + "{\"lp\":{\"timeout\":\"1\"}}}", number}, {connect + "{\"multipleClients\":1}}", boolean},
        {foo + ",\"id\":\"\\ud83d\"}", "Invalid JSON surrogate pair"}, {connect + "{\"timeout\":1e-1}}", integer + "."},
        {meta + "handshake\",\"supportedConnectionTypes\":\"long-polling\"}", "Invalid JSON, expected '['"},
        {foo + "} trailing", ok}, {"[" + foo + "}] trailing", ok}, {foo + ",\"data\":{}", ok}, {foo + ",", ok},
        {" \t\r\n{ \"channel\" : \"/foo\" , \"id\" : \"1\" } ", ok}, {foo + ",\"data\":[1,", ok},
        {foo + ",\"ext\":{\"ack\":true},\"unknown\":[null,false,-1.5e3,\"\\q\"]}", ok},
        {meta + "subscribe\",\"subscription\":null}", ok},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(failureOf(text), expected) << "input: " << text;
    }
    EXPECT_EQ(failureOf(meta + "subscribe\",\"successful\":0}", false), boolean);
    EXPECT_EQ(failureOf(meta + "subscribe\",\"successful\":0}", true), ok);
}

// What a body reads as, as a request: the message written back, or the failure's text.
std::string outcomeOf(const std::string& text) {
    try {
        DataBuffer out;
        serializeBayeuxMessage(parse(text), out);
        return out.str();
    } catch (const std::invalid_argument& failure) {
        return std::string("failed: ") + failure.what();
    }
}

TEST(Deserialize, MembersBeforeTheChannelReadAsTheyWouldBehindIt) {
    // The walk that finds `channel` hands the members it passed to the class's reader; the
    // message, or the failure, is the same wherever `channel` stands among them.
    const std::string nine = "\"a\":1,\"b\":[2],\"c\":{},\"d\":null,\"e\":\"5\",\"f\":6,\"g\":7,\"h\":8,\"i\":9";
    const std::string memberLists[] = {
        "\"id\":\"7\",\"clientId\":\"c\"",
        "\"advice\":{\"timeout\":5,\"interval\":1},\"connectionType\":\"websocket\",\"id\":\"1\",\"id\":\"2\"",
        "\"subscription\":\"/x\",\"data\":{\"a\":[1]},\"ext\":{\"ack\":true},\"supportedConnectionTypes\":[\"websocket\"]",
        nine + ",\"id\":\"past the members a first walk keeps\"",
        "\"id\":7",
        "\"advice\":{\"interval\":1.5}",
        "\"subscription\":[\"/x\"]",
    };
    for (const char* channel : {"/meta/connect", "/meta/subscribe", "/meta/handshake", "/foo"}) {
        const std::string member = std::string("\"channel\":\"") + channel + "\"";
        for (const std::string& members : memberLists) {
            const std::string behind = outcomeOf("{" + member + "," + members + "}");
            EXPECT_EQ(outcomeOf("{" + members + "," + member + "}"), behind) << channel << " " << members;
            EXPECT_EQ(outcomeOf("[{" + members + " , " + member + " }]"), behind) << channel << " " << members;
        }
    }
    EXPECT_EQ(outcomeOf("{\"id\":\"1\",\"channel\":\"/meta/connect\"}"),
              "{\"channel\":\"/meta/connect\",\"id\":\"1\",\"clientId\":null}");
}

TEST(Deserialize, PublishKeepsTheDataBytesAsTheyStand) {
    // The publish parser reads `channel` itself, so the last one wins; so does the last `data`.
    const std::pair<std::string, std::string> cases[] = {
        {"{\"channel\":\"/foo\"}", "PublishRequest /foo|| "},
        {"{\"data\":  [1,2] ,\"id\":\"7\",\"channel\":\"/f\",\"clientId\":\"c\"}", "PublishRequest /f|7|c [1,2]"},
        {"{\"channel\":\"/f\",\"data\":\"\\q\\u12\",\"data\":\"bad \\escape\"}", "PublishRequest /f|| \"bad \\escape\""},
        {"{\"channel\":\"/foo\",\"data\":{}", "PublishRequest /foo|| {}"},
        {"{\"channel\":\"/a\",\"id\":\"1\",\"id\":\"2\",\"channel\":\"/b\"}", "PublishRequest /b|2| "},
    };
    for (const auto& [text, expected] : cases) {
        auto message = parse(text);
        const auto& data = dynamic_cast<PublishRequest&>(*message).data;
        ASSERT_NE(data, nullptr) << text;
        EXPECT_EQ(fieldsOf(message) + " " + data->str(), expected);
    }
    auto response = parse("{\"channel\":\"/foo\",\"successful\":false,\"error\":\"denied\",\"data\":1,\"id\":\"3\"}");
    EXPECT_EQ(fieldsOf(response), "PublishResponse /foo|3||failed|denied");
}

TEST(Deserialize, MetaMessagesReadTheirMembersAndAdvice) {
    // The members the writer writes back are read as its round trips show; these rules are the reader's own.
    auto handshake = parse("{\"channel\":\"/meta/handshake\",\"supportedConnectionTypes\":[\"long-polling\"],"
                           "\"supportedConnectionTypes\":[\"websocket\"],\"ext\":{\"x\":[1]}}");
    auto& h = dynamic_cast<HandshakeRequest&>(*handshake);
    EXPECT_EQ(h.supportedConnectionTypes, std::vector<std::string>{"websocket"}) << "the last list wins";
    EXPECT_EQ(h.ext, "{\"x\":[1]}") << "kept as its raw text";
    auto connect = parse("{\"channel\":\"/meta/connect\",\"advice\":{\"timeout\":0}}");
    auto& c = dynamic_cast<ConnectStreamRequest&>(*connect);
    EXPECT_FALSE(c.bufferResponses || c.holdResponses);

    // Within advice the first entry of a connection type stays, the last of anything else, and nested
    // entries are skipped; read back, it writes as the writer's round trips show.
    const std::string head = "{\"channel\":\"/meta/connect\"";
    EXPECT_EQ(rewritten(head + ",\"successful\":true,\"advice\":{\"reconnect\":\"retry\",\"long-polling\":{\"timeout\":0,"
                               "\"multipleClients\":true,\"interval\":2e3,\"nested\":{\"timeout\":5}},\"interval\":5,"
                               "\"long-polling\":{\"timeout\":7},\"hosts\":[\"a\"],\"hosts\":[\"b\",\"c\"]}}"),
              head + ",\"clientId\":null,\"successful\":true,\"advice\":{\"reconnect\":\"retry\",\"interval\":5,"
                     "\"multipleClients\":false,\"hosts\":[\"b\",\"c\"],\"long-polling\":{\"reconnect\":\"none\","
                     "\"interval\":2000,\"timeout\":0,\"multipleClients\":true}}}");

    // Only the two exact words map to retry (0) and handshake (1); everything else is none (2).
    std::string reconnects;
    for (const char* text : {"\"retry\"", "\"handshake\"", "\"none\"", "\"Retry\"", "\"\"", "null"}) {
        auto message = parse(head + ",\"advice\":{\"reconnect\":" + text + "}}", false);
        reconnects += std::to_string(dynamic_cast<ConnectStreamResponse&>(*message).advice->reconnect);
    }
    EXPECT_EQ(reconnects, "012222");
}

}  // namespace
}  // namespace korvane::bayeux
