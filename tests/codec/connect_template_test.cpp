#include "korvane/codec/connect_template.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "korvane/codec/deserialize.h"

namespace korvane::bayeux {
namespace {

using common::DataBuffer;

const std::string head = "[{\"id\":\"";
const std::string tail = "\",\"channel\":\"/meta/connect\",\"clientId\":\"c0ffee0123456789\",\"connectionType\":\"websocket\"}]";

std::string connect(const std::string& id) { return head + id + tail; }

// What a request reads as, by the fields a connect's text can set; "none" for no request.
std::string fieldsOf(const Message* message) {
    const auto* connect = dynamic_cast<const ConnectStreamRequest*>(message);
    if (connect == nullptr) {
        return "none";
    }
    return connect->channel + "|" + connect->id + "|" + connect->clientId + "|" + connect->connectionType + "|" +
           (connect->advice ? "advice" : "");
}

std::string parsed(const std::string& text) {
    DataBuffer buffer(text);
    return fieldsOf(deserializeBayeuxMessage(buffer, true).get());
}

// Reads each of `texts` as a connection does; each must read as its parse.
void feed(ConnectTemplate& known, const std::vector<std::string>& texts) {
    for (const std::string& text : texts) {
        DataBuffer buffer(text);
        EXPECT_EQ(fieldsOf(known.readRequest(buffer).get()), parsed(text)) << text;
    }
}

std::string readBy(ConnectTemplate& known, const std::string& text) {
    DataBuffer buffer(text);
    return fieldsOf(known.read(buffer).get());
}

TEST(ConnectTemplate, KnowsTheNextConnectsAsTheirParseAndNothingElse) {
    ConnectTemplate known;
    feed(known, {connect("1"), connect("2")});
    // [text, known]: a text known reads exactly as its parse.
    const std::pair<std::string, bool> rows[] = {
        {connect("3"), true},
        {connect("12345678901234567890"), true},
        {connect(""), true},
        {connect("a-b_c ~!"), true},
        {connect("a\\\"b"), false},
        {connect("\xc3\xa9"), false},
        {head + "4\",\"channel\":\"/meta/connect\",\"clientId\":\"c0ffee0123456780\",\"connectionType\":\"websocket\"}]", false},
        {head + "4\",\"channel\":\"/meta/connect\",\"clientId\":\"c0ffee0123456789\",\"connectionType\":\"long-polling\"}]", false},
        {head + "4\",\"channel\":\"/meta/connect\",\"clientId\":\"c0ffee0123456789\",\"connectionType\":\"websocket\","
                "\"advice\":{\"timeout\":0}}]", false},
        {head + "4\", \"channel\":\"/meta/connect\",\"clientId\":\"c0ffee0123456789\",\"connectionType\":\"websocket\"}]", false},
        {head + "4\",\"channel\":\"/room\",\"clientId\":\"c0ffee0123456789\",\"connectionType\":\"websocket\"}]", false},
        {connect("5").substr(0, 40), false},
        {connect("5") + " ", false},
    };
    for (const auto& [text, isKnown] : rows) {
        EXPECT_EQ(readBy(known, text), isKnown ? parsed(text) : "none") << text;
    }
}

TEST(ConnectTemplate, KeepsOnlyAConnectWhoseIdAloneChangesWithItsPlace) {
    const std::string withAdvice = "{\"id\":\"2\",\"channel\":\"/meta/connect\",\"advice\":{\"timeout\":0}}";
    // [the connects told, a text like the last but for its id]
    const std::pair<std::vector<std::string>, std::string> rows[] = {
        // A connection's first connect is not kept.
        {{connect("1")}, connect("2")},
        // Advice, escapes, a text past the kept size, an id shown twice, an id shown only where it does not count.
        {{connect("1"), withAdvice}, "{\"id\":\"3\",\"channel\":\"/meta/connect\",\"advice\":{\"timeout\":0}}"},
        {{connect("1"), "{\"id\":\"2\",\"channel\":\"\\/meta\\/connect\"}"}, "{\"id\":\"3\",\"channel\":\"\\/meta\\/connect\"}"},
        {{connect("1"), connect("2") + std::string(200, ' ')}, connect("3") + std::string(200, ' ')},
        {{connect("1"), "{\"id\":\"2\",\"channel\":\"/meta/connect\",\"ext\":{\"id\":\"2\"}}"},
         "{\"id\":\"3\",\"channel\":\"/meta/connect\",\"ext\":{\"id\":\"3\"}}"},
        {{connect("1"), "{\"id\" : \"2\",\"channel\":\"/meta/connect\",\"ext\":{\"id\":\"2\"}}"},
         "{\"id\" : \"2\",\"channel\":\"/meta/connect\",\"ext\":{\"id\":\"3\"}}"},
        {{connect("1"), "{\"id\":\"2\",\"channel\":\"/meta/connect\",\"id\" : \"2\"}"},
         "{\"id\":\"3\",\"channel\":\"/meta/connect\",\"id\" : \"2\"}"},
        // A connection whose connects keep differing gives up after three.
        {{connect("1"), connect("1") + " ", connect("1") + "  ", connect("1") + "   ", connect("2")}, connect("3")},
    };
    for (const auto& [told, next] : rows) {
        ConnectTemplate known;
        feed(known, told);
        EXPECT_EQ(readBy(known, next), "none") << told.back();
    }
    // A connect known starts the count again: a fourth differing one after it is still kept.
    ConnectTemplate known;
    feed(known, {connect("1"), connect("1") + " ", connect("1") + "  ", connect("2"), connect("3"), connect("4") + " "});
    EXPECT_EQ(readBy(known, connect("5") + " "), parsed(connect("5") + " "));
}

}  // namespace
}  // namespace korvane::bayeux
