#include <gtest/gtest.h>

#include <string>

#include "korvane/codec/utf8.h"

namespace korvane::bayeux {

TEST(Utf8Validation, AcceptsShortestFormsUpToU10FFFFAndNothingElse) {
    // The lowest and highest of each length and the edges of the surrogates pass; overlongs,
    // surrogates, code points above U+10FFFF, stray or missing continuations and cut-off ends
    // do not, on either side of the 32- and eight-byte ASCII steps.
    const std::pair<std::string, bool> rows[] = {
        {"", true}, {R"({"channel":"/meta/handshake","version":"1.0"})", true}, {std::string("a\0b", 3), true},
        {"\xC2\x80", true}, {"\xDF\xBF", true}, {"\xE0\xA0\x80", true}, {"\xED\x9F\xBF", true}, {"\xEE\x80\x80", true},
        {"\xEF\xBF\xBF", true}, {"\xF0\x90\x80\x80", true}, {"\xF4\x8F\xBF\xBF", true}, {R"("\ud800")", true},
        {"abcdefgh\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80xyz", true}, {"\xC0\xAF", false}, {"\xC1\xBF", false},
        {"\xE0\x9F\xBF", false}, {"\xF0\x8F\xBF\xBF", false}, {"\xED\xA0\x80", false}, {"\xED\xBF\xBF", false},
        {"\xF4\x90\x80\x80", false}, {"\xF5\x80\x80\x80", false}, {"\xFF", false}, {"a\x80", false},
        {"\xE2\x28\xA1", false}, {"\xF0\x9F\x28\x80", false}, {"\xC3", false}, {"abcdefgh\xE2\x82", false},
        {"\xF0\x9F\x98", false}, {"abcdefgh\xFE", false}, {"abcdefg\x80", false},
        {std::string(31, 'a') + "\x80", false}, {std::string(32, 'a') + "\xFF" + std::string(31, 'b'), false},
        {std::string(30, 'a') + "\xC3\xA9" + std::string(40, 'b'), true}, {std::string(40, 'a') + "\xE2\x82", false},
    };
    for (const auto& [bytes, valid] : rows) {
        EXPECT_EQ(isValidUtf8(bytes.data(), bytes.size()), valid) << bytes;
    }
    const std::string text = "ok\xC3\xA9";
    EXPECT_TRUE(isValidUtf8(text.data(), 2));
    EXPECT_FALSE(isValidUtf8(text.data(), 3)) << "a sequence cut by the size is cut off";
    EXPECT_TRUE(isValidUtf8(nullptr, 0));
}

}  // namespace korvane::bayeux
