#include "korvane/codec/json_reader.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace korvane::bayeux::json {
namespace {

using common::DataBuffer;

// The outcome of running one reader routine over a text: its result rendered as text
// and the cursor behind it, or the text of the exception it threw.
struct Outcome {
    std::string value;
    std::uint64_t cursor = 0;
    std::string error;
};

Outcome run(const std::string& text, const std::function<std::string(std::uint64_t&, const DataBuffer&)>& read) {
    DataBuffer buffer(text);
    std::uint64_t cursor = 0;
    Outcome outcome;
    try {
        outcome.value = read(cursor, buffer);
        outcome.cursor = cursor;
    } catch (const std::invalid_argument& failure) {
        outcome.error = failure.what();
    }
    return outcome;
}

struct Case {
    std::string input;
    std::string expected;  // the value, or the error text when `fails`
    bool fails;
};

void expectCases(const std::vector<Case>& cases,
                 const std::function<std::string(std::uint64_t&, const DataBuffer&)>& read) {
    for (const Case& c : cases) {
        Outcome outcome = run(c.input, read);
        if (c.fails) {
            EXPECT_EQ(outcome.error, c.expected) << "input: " << c.input;
        } else {
            EXPECT_EQ(outcome.error, "") << "input: " << c.input;
            EXPECT_EQ(outcome.value, c.expected) << "input: " << c.input;
        }
    }
}

const char* const numberExpected = "Invalid JSON, expected a number";
const char* const collectionInvalid = "JSON parsing error, invalid collection.";

TEST(JsonReader, CharacterRoutinesSeeOnlyFourWhitespaceBytesAndTheEnd) {
    DataBuffer empty;
    std::uint64_t cursor = 0;
    EXPECT_EQ(peekChar(cursor, empty), '\0');
    EXPECT_THROW(
        {
            try {
                nextChar(cursor, empty);
            } catch (const std::invalid_argument& failure) {
                EXPECT_STREQ(failure.what(), "Invalid JSON, unexpected end");
                throw;
            }
        },
        std::invalid_argument);

    DataBuffer spaced(std::string(" \t\r\nx"));
    cursor = 0;
    EXPECT_EQ(peekChar(cursor, spaced), 'x');
    EXPECT_EQ(cursor, 4u);
    EXPECT_EQ(nextChar(cursor, spaced), 'x');
    EXPECT_EQ(cursor, 5u);

    DataBuffer verticalTab(std::string("\v\fx"));
    cursor = 0;
    EXPECT_EQ(peekChar(cursor, verticalTab), '\v');

    // A NUL byte looks like the end to peekChar, but nextChar hands it out.
    DataBuffer nul(std::string("\0x", 2));
    cursor = 0;
    EXPECT_EQ(peekChar(cursor, nul), '\0');
    EXPECT_EQ(cursor, 0u);
    EXPECT_EQ(nextChar(cursor, nul), '\0');
    EXPECT_EQ(cursor, 1u);

    expectCases({{" :", "2", false}, {"x", "Invalid JSON, expected ':'", true}, {"", "Invalid JSON, expected ':'", true}},
                [](std::uint64_t& at, const DataBuffer& buffer) {
                    expectChar(at, buffer, ':');
                    return std::to_string(at);
                });
}

TEST(JsonReader, SkipValueAcceptsAndRefusesByPosition) {
    const std::string nul("[\0]", 3);
    // Expected value: the cursor behind the value.
    expectCases(
        {
            {"", numberExpected, true},
            {"{\"a\":0", numberExpected, true},
            {"{\"a\":1", "6", false},
            {"{\"a\":true", "Invalid JSON, expected a literaltrue", true},
            {"{\"a\":true}", "10", false},
            {"true", "Invalid JSON, expected a literaltrue", true},
            {" true ", "5", false},
            {"nul", "Invalid JSON, expected a literalnull", true},
            {"nulx ", "Invalid JSON, expected a literalnull", true},
            {"fals ", "Invalid JSON, expected a literalfalse", true},
            {"[1,]", numberExpected, true},
            {"{\"a\":1,}", "Invalid JSON, expected '\"'", true},
            {"[1,", "3", false},
            {"{\"a\":1,", "7", false},
            {"[", "1", false},
            {"[ ", "2", false},
            {"{", "1", false},
            {"[]", "2", false},
            {"{} ", "2", false},
            {"[}", numberExpected, true},
            {"{]", "Invalid JSON, expected '\"'", true},
            {"[1 2]", collectionInvalid, true},
            {"{\"a\":1 \"b\":2}", collectionInvalid, true},
            {"{\"a\" 1}", "Invalid JSON, expected ':'", true},
            {"{\"a\":1]", collectionInvalid, true},
            {"[1}", collectionInvalid, true},
            {"[1 ", "Invalid JSON, unexpected end", true},
            {nul, numberExpected, true},
            {"\"abc", "Invalid JSON, expected a string", true},
            {"\"a\\\"", "Invalid JSON, expected a string", true},
            {"\"\\q\\u12\" ", "8", false},
            {"\"raw\nnewline\"", "13", false},
            {"\"a\\\"b\\\\\"x", "8", false},
            {"\"\\\\\\\"", "Invalid JSON, expected a string", true},
            {"\"\\\"\\\"\\\"\"", "8", false},
            {"{\"a\":[1,{\"b\":[]}],\"c\":\"x\"} ", "26", false},
            {"[[[[]]]]", "8", false},
        },
        [](std::uint64_t& cursor, const DataBuffer& buffer) {
            skipValue(cursor, buffer);
            return std::to_string(cursor);
        });
}

TEST(JsonReader, SkipNumberTestsTheFormAndTheEndOfTheBuffer) {
    expectCases(
        {
            {"+1", numberExpected, true},
            {"-", numberExpected, true},
            {"-x", numberExpected, true},
            {"0", numberExpected, true},
            {"-0", numberExpected, true},
            {"0 ", "1", false},
            {"01 ", "1", false},
            {"-0,", "2", false},
            {"7", "1", false},
            {"123", "3", false},
            {"1.", numberExpected, true},
            {"1.x", numberExpected, true},
            {"1.5", "3", false},
            {"1.25]", "4", false},
            {"0.5 ", "3", false},
            {"1e", numberExpected, true},
            {"1e+", numberExpected, true},
            {"1e+x", numberExpected, true},
            {"1ex", numberExpected, true},
            {"1e+5", "4", false},
            {"1E-2 ", "4", false},
            {"1.5e3,", "5", false},
            {"0e1", "3", false},
        },
        [](std::uint64_t& cursor, const DataBuffer& buffer) {
            skipNumber(cursor, buffer);
            return std::to_string(cursor);
        });
}

TEST(JsonReader, ReadStringOrNullDecodesEscapes) {
    expectCases(
        {
            {"\"abc\"", "abc", false},
            {"\"a\\\"b\\\\\"", "a\"b\\", false},
            {" null ", "", false},
            {"null", "Invalid JSON, expected a literalnull", true},
            {"\"\"", "", false},
            {"\"\\q\"", "q", false},
            {"\"\\\"\\\\\\/\"", "\"\\/", false},
            {"\"\\n\\t\\r\\b\\f\"", "\n\t\r\b\f", false},
            {"\"\\u00e9\"", "\xC3\xA9", false},
            {"\"\\u00E9\"", "\xC3\xA9", false},
            {"\"\\u0041\"", "A", false},
            {"\"\\u0000\"", std::string("\0", 1), false},
            {"\"\\u20AC\"", "\xE2\x82\xAC", false},
            {"\"\\u12345\"", "\xE1\x88\xB4" "5", false},
            {"\"\\ud83d\\ude00\"", "\xF0\x9F\x98\x80", false},
            {"\"\\uD83D\\uDE00\"", "\xF0\x9F\x98\x80", false},
            {"\"\\ude00\"", "\xED\xB8\x80", false},
            {"\"\\ud83d\"", "Invalid JSON surrogate pair", true},
            {"\"\\ud83d\\ude0\"", "Invalid JSON surrogate pair", true},
            {"\"\\ud83dabcdefg\"", "Invalid JSON unicode escaped character", true},
            {"\"\\ud83d\\u0041\"", "Invalid JOSN surrogate pair second code unit", true},
            {"\"\\ud83d\\ud83d\"", "Invalid JOSN surrogate pair second code unit", true},
            {"\"\\ud83d\\uzzzz\"", "Invalid JSON hex escape sequence", true},
            {"\"\\u00\"", "Invalid JSON hex escape sequence", true},
            {"\"\\u00zz\"", "Invalid JSON hex escape sequence", true},
            {"\"raw\ncontrol\x01\"", "raw\ncontrol\x01", false},
            {"\"\xC3(\"", "\xC3(", false},
            {"\"abc", "Invalid JSON string", true},
            {"\"a\\\"", "Invalid JSON string", true},
            {"12", "Invalid JSON, expected '\"'", true},
            {"[\"a\"]", "Invalid JSON, expected '\"'", true},
        },
        [](std::uint64_t& cursor, const DataBuffer& buffer) { return readStringOrNull(cursor, buffer); });

    // Long strings are scanned in larger steps; escapes on either side of that change still hide their byte.
    const std::string a30(30, 'a');
    const std::string a40(40, 'a');
    expectCases(
        {
            {"\"" + a30 + "\\\"" + std::string(10, 'b') + "\"", a30 + "\"" + std::string(10, 'b'), false},
            {"\"" + a30 + "a\\\"b\"", a30 + "a\"b", false},
            {"\"" + a40 + "\\\\\\\"x\"", a40 + "\\\"x", false},
            {"\"" + a40 + "\\\"\\\"\"", a40 + "\"\"", false},
            {"\"" + a40, "Invalid JSON string", true},
            {"\"" + a40 + "\\", "Invalid JSON string", true},
            {"\"" + a40 + "\\\"", "Invalid JSON string", true},
        },
        [](std::uint64_t& cursor, const DataBuffer& buffer) { return readStringOrNull(cursor, buffer); });

    DataBuffer trailingBackslash(std::string("a\\"));
    try {
        decodeStringSpan(trailingBackslash, 0, 2);
        ADD_FAILURE() << "a span that ends in a backslash must be refused";
    } catch (const std::invalid_argument& failure) {
        EXPECT_STREQ(failure.what(), "Invalid JSON escape sequence");
    }
}

TEST(JsonReader, ReadIntegerWrapsIn32BitsAndRefusesFractions) {
    expectCases(
        {
            {"5 ", "5", false},
            {"5", "5", false},
            {"1234", "1234", false},
            {"0", numberExpected, true},
            {"0 ", "0", false},
            {"-0 ", "0", false},
            {"-7,", "-7", false},
            {"2e2 ", "200", false},
            {"5e3", "5000", false},
            {"1E2", "100", false},
            {"1e+2", "100", false},
            {"-3e1", "-30", false},
            {"0e5 ", "0", false},
            {"2e-2", "Invalid JSON, expected an integer.", true},
            {"1.5", "Invalid JSON, expected an integer", true},
            {"0.5", "Invalid JSON, expected an integer", true},
            {"1e", numberExpected, true},
            {"1e+", numberExpected, true},
            {"1ex", numberExpected, true},
            {"+1", numberExpected, true},
            {"-", numberExpected, true},
            {"x", numberExpected, true},
            {"\"5\"", numberExpected, true},
            {"12345678901", "-539222987", false},
            {"2147483648 ", "-2147483648", false},
            {"1e10", "-2147483648", false},
        },
        [](std::uint64_t& cursor, const DataBuffer& buffer) { return std::to_string(readInteger(cursor, buffer)); });
}

TEST(JsonReader, ReadBooleanAcceptsOnlyTheTwoLiterals) {
    expectCases(
        {
            {" true ", "1", false},
            {"false}", "0", false},
            {"true", "Invalid JSON, expected a literaltrue", true},
            {"tru ", "Invalid JSON, expected a literaltrue", true},
            {"null", "Invalid JSON boolean", true},
            {"\"true\"", "Invalid JSON boolean", true},
            {"1", "Invalid JSON boolean", true},
            {"", "Invalid JSON boolean", true},
        },
        [](std::uint64_t& cursor, const DataBuffer& buffer) { return std::to_string(readBoolean(cursor, buffer)); });
}

TEST(JsonReader, ReadStringListStopsSilentlyAtTheEnd) {
    expectCases(
        {
            {"[\"a\",\"b\"]", "a|b|", false},
            {"[ ]", "", false},
            {"[\"a\",null]", "a||", false},
            {"[\"a\"", "a|", false},
            {"[\"a\",", "a|", false},
            {"[\"a\" \"b\"]", collectionInvalid, true},
            {"[\"a\"}", collectionInvalid, true},
            {"[\"a\",]", "Invalid JSON, expected '\"'", true},
            {"[1]", "Invalid JSON, expected '\"'", true},
            {"\"a\"", "Invalid JSON, expected '['", true},
        },
        [](std::uint64_t& cursor, const DataBuffer& buffer) {
            std::vector<std::string> list;
            readStringList(cursor, buffer, '[', ']', list);
            std::string joined;
            for (const std::string& element : list) {
                joined += element + "|";
            }
            return joined;
        });
}

constexpr std::size_t millionLevels = 1000000;

std::string repeated(const std::string& piece, std::size_t times) {
    std::string text;
    text.reserve(piece.size() * times);
    for (std::size_t i = 0; i < times; ++i) {
        text += piece;
    }
    return text;
}

TEST(JsonReader, MillionLevelsOfNestingAreScannedWithoutNativeRecursion) {
    auto skipAll = [](std::uint64_t& cursor, const DataBuffer& buffer) {
        skipValue(cursor, buffer);
        return std::to_string(cursor);
    };
    std::string arrays = repeated("[", millionLevels) + "1" + repeated("]", millionLevels);
    std::string objects = repeated("{\"k\":", millionLevels) + "null" + repeated("}", millionLevels);
    std::string mixed = repeated("[{\"k\":", millionLevels / 2) + "\"v\"" + repeated("}]", millionLevels / 2);
    expectCases(
        {
            {arrays + " ", std::to_string(arrays.size()), false},
            {objects + " ", std::to_string(objects.size()), false},
            {mixed + ",", std::to_string(mixed.size()), false},
            // Cut off behind a complete element: every open level ends silently.
            {repeated("[", millionLevels) + "1", std::to_string(millionLevels + 1), false},
            {repeated("[", millionLevels), std::to_string(millionLevels), false},
            {repeated("[", millionLevels) + "0", numberExpected, true},
            {repeated("[", millionLevels) + "1" + repeated("]", millionLevels - 1) + "}", collectionInvalid, true},
            {repeated("{\"k\":", millionLevels) + "1" + repeated("}", millionLevels / 2) + "]", collectionInvalid,
             true},
            {repeated("[1,", millionLevels) + "]", numberExpected, true},
        },
        skipAll);
}

}  // namespace
}  // namespace korvane::bayeux::json
