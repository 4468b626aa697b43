#include "korvane/codec/json_reader.h"

#include <gtest/gtest.h>

#include <numeric>

#include "support/test_helpers.h"

namespace korvane::bayeux::json {
namespace {

using common::DataBuffer;
using Reader = std::function<std::string(std::uint64_t&, const DataBuffer&)>;

// Marks the expected outcome of a row whose routine throws std::invalid_argument with the text behind it.
const std::string fails = "throws ";

// Runs `read` over every input from cursor 0; its rendered result, or the text it threw, must match.
void expectCases(const std::vector<std::pair<std::string, std::string>>& cases, const Reader& read) {
    for (const auto& [input, expected] : cases) {
        std::uint64_t cursor = 0;
        std::string outcome;
        const std::string refused =
            test_support::errorOf<std::invalid_argument>([&] { outcome = read(cursor, DataBuffer(input)); });
        EXPECT_EQ(refused == "(no exception)" ? outcome : fails + refused, expected) << "input: " << input;
    }
}

const std::string numberExpected = fails + "Invalid JSON, expected a number";
const std::string quoteExpected = fails + "Invalid JSON, expected '\"'", unterminated = fails + "Invalid JSON string";
const std::string collectionInvalid = fails + "JSON parsing error, invalid collection.";
const std::string literalTrue = fails + "Invalid JSON, expected a literaltrue";

TEST(JsonReader, SkipValueAcceptsAndRefusesByPosition) {
    const std::string literalNull = fails + "Invalid JSON, expected a literalnull";
    const std::string noString = fails + "Invalid JSON, expected a string";
    expectCases({{"", numberExpected}, {"{\"a\":0", numberExpected}, {"{\"a\":1", "6"}, {"{\"a\":true", literalTrue},
                 {"{\"a\":true}", "10"}, {"true", literalTrue}, {" true ", "5"}, {"nul", literalNull}, {"[1,", "3"},
                 {"nulx ", literalNull}, {"fals ", fails + "Invalid JSON, expected a literalfalse"}, {"{\"a\":1,", "7"},
                 {"[1,]", numberExpected}, {"{\"a\":1,}", quoteExpected}, {"[", "1"}, {"[ ", "2"}, {"{", "1"},
                 {"[]", "2"}, {"{} ", "2"}, {"[}", numberExpected}, {"{]", quoteExpected}, {"[1 2]", collectionInvalid},
                 {"{\"a\":1 \"b\":2}", collectionInvalid}, {"{\"a\" 1}", fails + "Invalid JSON, expected ':'"},
                 {"{\"a\":1]", collectionInvalid}, {"[1}", collectionInvalid}, {std::string("[\0]", 3), numberExpected},
                 {"[1 ", fails + "Invalid JSON, unexpected end"}, {"\"abc", noString}, {"\"a\\\"", noString},
                 {"\"\\q\\u12\" ", "8"}, {"\"raw\nnewline\"", "13"}, {"\"a\\\"b\\\\\"x", "8"}, {"\"\\\\\\\"", noString},
                 {"\"\\\"\\\"\\\"\"", "8"}, {"{\"a\":[1,{\"b\":[]}],\"c\":\"x\"} ", "26"}, {"[[[[]]]]", "8"},
                 // Only four bytes are whitespace; a NUL byte is no end of the text.
                 {" \t\r\n1 ", "5"}, {"\v1", numberExpected}, {"\f1", numberExpected}, {std::string("1\0", 2), "1"},
                 {"{\"a\"", fails + "Invalid JSON, expected ':'"}, {"{\"a\":", numberExpected},
                 // Numbers: the form, and a digit at the end of the buffer that may not be the last.
                 {"+1", numberExpected}, {"-", numberExpected}, {"-x", numberExpected}, {"0", numberExpected},
                 {"-0", numberExpected}, {"0 ", "1"}, {"01 ", "1"}, {"-0,", "2"}, {"7", "1"}, {"123", "3"},
                 {"1.", numberExpected}, {"1.x", numberExpected}, {"1.5", "3"}, {"1.25]", "4"}, {"0.5 ", "3"},
                 {"1e", numberExpected}, {"1e+", numberExpected}, {"1e+x", numberExpected}, {"1ex", numberExpected},
                 {"1e+5", "4"}, {"1E-2 ", "4"}, {"1.5e3,", "5"}, {"0e1", "3"}},
                [](std::uint64_t& cursor, const DataBuffer& buffer) {
                    return skipValue(cursor, buffer), std::to_string(cursor);  // the cursor behind the value
                });
}

TEST(JsonReader, ReadStringOrNullDecodesEscapes) {
    const std::string pair = fails + "Invalid JSON surrogate pair", hex = fails + "Invalid JSON hex escape sequence";
    const std::string secondUnit = fails + "Invalid JOSN surrogate pair second code unit", emoji = "\xF0\x9F\x98\x80";
    expectCases({{"\"abc\"", "abc"}, {"\"a\\\"b\\\\\"", "a\"b\\"}, {" null ", ""}, {"\"\"", ""}, {"\"\\q\"", "q"},
                 {"null", fails + "Invalid JSON, expected a literalnull"}, {"\"\\\"\\\\\\/\"", "\"\\/"},
                 {"\"\\n\\t\\r\\b\\f\"", "\n\t\r\b\f"}, {"\"\\u00e9\"", "\xC3\xA9"}, {"\"\\u00E9\"", "\xC3\xA9"},
                 {"\"\\u0041\"", "A"}, {"\"\\u0000\"", std::string("\0", 1)}, {"\"\\u20AC\"", "\xE2\x82\xAC"},
                 {"\"\\u12345\"", "\xE1\x88\xB4" "5"}, {"\"\\ud83d\\ude00\"", emoji}, {"\"\\uD83D\\uDE00\"", emoji},
                 {"\"\\ude00\"", "\xED\xB8\x80"}, {"\"\\ud83d\"", pair}, {"\"\\ud83d\\ude0\"", pair},
                 {"\"\\ud83dabcdefg\"", fails + "Invalid JSON unicode escaped character"}, {"\"\\ud83d\\uzzzz\"", hex},
                 {"\"\\ud83d\\u0041\"", secondUnit}, {"\"\\ud83d\\ud83d\"", secondUnit}, {"\"\\u00\"", hex},
                 {"\"\\u00zz\"", hex}, {"\"raw\ncontrol\x01\"", "raw\ncontrol\x01"}, {"\"\xC3(\"", "\xC3("},
                 {"\"abc", unterminated}, {"\"a\\\"", unterminated}, {"12", quoteExpected}, {"[\"a\"]", quoteExpected}},
                readStringOrNull);
    // A closing quote, escapes or the end at every place in and past the eight-byte words, and past the
    // short-string scan, where the search jumps from backslash to backslash.
    for (std::size_t at = 0; at < 48; ++at) {
        const std::string run(at, 'a');
        expectCases({{"\"" + run + "\"", run}, {"\"" + run + "\\\"x\"", run + "\"x"}, {"\"" + run, unterminated},
                     {"\"" + run + "\\\\\\\"\\\"\"", run + "\\\"\""}, {"\"" + run + "\\", unterminated},
                     {"\"" + run + "\\\"", unterminated}},
                    readStringOrNull);
    }
    expectCases({{"a\\", fails + "Invalid JSON escape sequence"}}, [](std::uint64_t&, const DataBuffer& buffer) {
        return decodeStringSpan(buffer, 0, buffer.size);
    });
}

TEST(JsonReader, ReadIntegerBooleanAndStringListAcceptOnlyTheirForms) {
    const std::string notInteger = fails + "Invalid JSON, expected an integer";
    expectCases({{"5 ", "5"}, {"5", "5"}, {"1234", "1234"}, {"0", numberExpected}, {"0 ", "0"}, {"-0 ", "0"},
                 {"-7,", "-7"}, {"2e2 ", "200"}, {"5e3", "5000"}, {"1E2", "100"}, {"1e+2", "100"}, {"-3e1", "-30"},
                 {"0e5 ", "0"}, {"2e-2", fails + "Invalid JSON, expected an integer."}, {"1.5", notInteger},
                 {"0.5", notInteger}, {"1e", numberExpected}, {"1e+", numberExpected}, {"1ex", numberExpected},
                 {"+1", numberExpected}, {"-", numberExpected}, {"x", numberExpected}, {"\"5\"", numberExpected}},
                [](std::uint64_t& at, const DataBuffer& buffer) { return std::to_string(readInteger(at, buffer)); });

    const std::string notBoolean = fails + "Invalid JSON boolean";
    expectCases({{" true ", "1"}, {"false}", "0"}, {"true", literalTrue}, {"tru ", literalTrue}, {"null", notBoolean},
                 {"\"true\"", notBoolean}, {"1", notBoolean}, {"", notBoolean}},
                [](std::uint64_t& at, const DataBuffer& buffer) { return std::to_string(readBoolean(at, buffer)); });
    // A list cut off behind a complete element ends silently.
    expectCases({{"[\"a\",\"b\"]", "a|b|"}, {"[ ]", ""}, {"[\"a\",null]", "a||"}, {"[\"a\"", "a|"}, {"[\"a\",", "a|"},
                 {"[\"a\" \"b\"]", collectionInvalid}, {"[\"a\"}", collectionInvalid}, {"[\"a\",]", quoteExpected},
                 {"[1]", quoteExpected}, {"\"a\"", fails + "Invalid JSON, expected '['"}},
                [](std::uint64_t& cursor, const DataBuffer& buffer) {
                    std::vector<std::string> list;
                    readStringList(cursor, buffer, '[', ']', list);
                    return std::accumulate(list.begin(), list.end(), std::string(),
                                           [](const std::string& all, const auto& one) { return all + one + "|"; });
                });
}

}  // namespace
}  // namespace korvane::bayeux::json
