#include <gtest/gtest.h>

#include <string>

#include "korvane/codec/utf8.h"

namespace korvane::bayeux {
namespace {

bool valid(const std::string& bytes) { return isValidUtf8(bytes.data(), bytes.size()); }

TEST(Utf8Validation, AcceptsShortestFormsUpToU10FFFFAndNothingElse) {
    struct Row {
        const char* what;
        std::string bytes;
        bool expected;
    };
    const Row rows[] = {
        {"empty", "", true},
        {"ASCII longer than a word", R"({"channel":"/meta/handshake","version":"1.0"})", true},
        {"NUL is ASCII", std::string("a\0b", 3), true},
        {"two bytes, lowest", "\xC2\x80", true},
        {"two bytes, highest", "\xDF\xBF", true},
        {"three bytes, lowest", "\xE0\xA0\x80", true},
        {"three bytes, last before the surrogates", "\xED\x9F\xBF", true},
        {"three bytes, first after the surrogates", "\xEE\x80\x80", true},
        {"three bytes, highest", "\xEF\xBF\xBF", true},
        {"four bytes, lowest", "\xF0\x90\x80\x80", true},
        {"four bytes, U+10FFFF", "\xF4\x8F\xBF\xBF", true},
        {"mixed after eight ASCII bytes", "abcdefgh\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80xyz", true},
        {"escaped surrogate is plain text", R"("\ud800")", true},
        {"overlong slash, two bytes", "\xC0\xAF", false},
        {"overlong, lead C1", "\xC1\xBF", false},
        {"overlong, three bytes", "\xE0\x9F\xBF", false},
        {"overlong, four bytes", "\xF0\x8F\xBF\xBF", false},
        {"high surrogate", "\xED\xA0\x80", false},
        {"low surrogate", "\xED\xBF\xBF", false},
        {"above U+10FFFF", "\xF4\x90\x80\x80", false},
        {"lead F5", "\xF5\x80\x80\x80", false},
        {"lead FF", "\xFF", false},
        {"stray continuation", "a\x80", false},
        {"continuation missing in the middle", "\xE2\x28\xA1", false},
        {"third byte not a continuation", "\xF0\x9F\x28\x80", false},
        {"cut off two-byte sequence", "\xC3", false},
        {"cut off three-byte sequence", "abcdefgh\xE2\x82", false},
        {"cut off four-byte sequence", "\xF0\x9F\x98", false},
        {"bad byte after eight ASCII bytes", "abcdefgh\xFE", false},
        {"bad byte inside the last word", "abcdefg\x80", false},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(valid(row.bytes), row.expected) << row.what;
    }
}

TEST(Utf8Validation, LooksNoFurtherThanTheGivenSize) {
    const std::string text = "ok\xC3\xA9";
    EXPECT_TRUE(isValidUtf8(text.data(), 2));
    EXPECT_FALSE(isValidUtf8(text.data(), 3)) << "a sequence cut by the size is cut off";
    EXPECT_TRUE(isValidUtf8(nullptr, 0));
}

}  // namespace
}  // namespace korvane::bayeux
