#include "korvane/codec/channel.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace korvane::bayeux {
namespace {

using Segments = std::vector<std::string>;

// A node's hold counts as {exact, "/*", "/**"}.
std::vector<int> counts(const Channel& node) {
    return {node.exactCount, node.singleWildcardCount, node.deepWildcardCount};
}

TEST(SplitChannel, DropsEmptySegmentsAndReservesRoom) {
    const std::pair<std::string, Segments> cases[] = {
        {"", {}},        {"/", {}},           {"//", {}},          {"/a", {"a"}},        {"//a", {"a"}},
        {"a/b", {"a", "b"}}, {"/a//b", {"a", "b"}}, {"/a/b/", {"a", "b"}}, {"/a/b/c", {"a", "b", "c"}},
        {"/a*/**", {"a*", "**"}},
    };
    for (const auto& [channel, expected] : cases) {
        const Segments segments = splitChannel(channel);
        EXPECT_EQ(segments, expected) << channel;
        EXPECT_GE(segments.capacity(), 10u) << channel;
    }
}

TEST(Channel, MatchesByPatternKind) {
    EXPECT_FALSE(Channel().channelMatches({"a"})) << "an empty set matches nothing";
    EXPECT_FALSE(Channel().channelMatches({}));
    // A wildcard that is not a whole final segment is literal text ("/a*", "/*/b").
    const std::tuple<std::string, std::string, bool> cases[] = {
        {"/a/b", "/a/b", true},    {"/a/b", "/a", false},     {"/a/b", "/a/b/c", false}, {"/a/b", "/a/c", false},
        {"/a//b", "/a/b", true},   {"/a/*", "/a/b", true},    {"/a/*", "/a", false},     {"/a/*", "/a/b/c", false},
        {"/a/*", "/b/c", false},   {"/a/**", "/a/b", true},   {"/a/**", "/a/b/c/d", true}, {"/a/**", "/a", false},
        {"/a/**", "/b/c", false},  {"/*", "/a", true},        {"/*", "/a/b", false},     {"/**", "/a", true},
        {"/**", "/a/b/c", true},   {"/a*", "/ab", false},     {"/a*", "/a*", true},      {"/*/b", "/a/b", false},
        {"/*/b", "/*/b", true},
    };
    for (const auto& [pattern, published, matches] : cases) {
        Channel channel;
        channel.pushPattern(pattern);
        EXPECT_EQ(channel.channelMatches(splitChannel(published)), matches) << pattern << " vs " << published;
    }
}

TEST(Channel, CountsEveryHoldAndPrunesEmptiedNodes) {
    Channel pushed;
    for (const char* pattern : {"/a/b", "/a/b", "/a/b/*", "/a/b/**"}) {
        pushed.pushPattern(pattern);
    }
    Channel channel;
    channel = Channel(std::move(pushed));  // both moves carry the whole tree
    const Channel& b = *channel.children.at("a")->children.at("b");
    EXPECT_EQ(counts(b), (std::vector<int>{2, 1, 1}));
    EXPECT_TRUE(b.children.empty());

    EXPECT_TRUE(channel.popPattern("/a/b/*"));
    EXPECT_FALSE(channel.popPattern("/a/b/*"));
    EXPECT_TRUE(channel.popPattern("/a/b/**"));
    EXPECT_TRUE(channel.popPattern("/a/b"));
    EXPECT_TRUE(channel.channelMatches({"a", "b"})) << "pushed twice, popped once";
    EXPECT_TRUE(channel.popPattern("/a/b"));
    EXPECT_FALSE(channel.channelMatches({"a", "b"}));
    EXPECT_TRUE(channel.children.empty()) << "emptied nodes are pruned up to the root";
    EXPECT_FALSE(channel.popPattern("/a/b"));
}

TEST(Channel, PopChangesNothingUnheldAndPrunesOnlyWhatEmptied) {
    Channel channel;
    for (const char* pattern : {"/a", "/a/b/c", "/a/d"}) {
        channel.pushPattern(pattern);
    }
    for (const char* unheld : {"/a/b", "/a/*", "/a/**", "/a/b/c/d", "/x", "/a/b/c/*", "/"}) {
        EXPECT_FALSE(channel.popPattern(unheld)) << unheld;
    }
    ASSERT_EQ(channel.children.size(), 1u);
    const Channel& a = *channel.children.at("a");
    EXPECT_EQ(counts(a), (std::vector<int>{1, 0, 0}));
    ASSERT_EQ(a.children.size(), 2u);
    EXPECT_EQ(counts(*a.children.at("b")), (std::vector<int>{0, 0, 0}));
    EXPECT_EQ(counts(*a.children.at("b")->children.at("c")), (std::vector<int>{1, 0, 0}));

    EXPECT_TRUE(channel.popPattern("/a/b/c"));
    EXPECT_EQ(a.children.count("b"), 0u);
    EXPECT_EQ(a.children.count("d"), 1u);
    EXPECT_TRUE(channel.channelMatches({"a"}));
    EXPECT_TRUE(channel.channelMatches({"a", "d"}));
}

TEST(Channel, FullCountRefusesAnotherHoldWithoutChange) {
    Channel channel;
    const unsigned limit = std::numeric_limits<std::uint16_t>::max();
    for (unsigned i = 0; i < limit; ++i) {
        channel.pushPattern("/a/*");
    }
    EXPECT_THROW(channel.pushPattern("/a/*"), std::runtime_error);
    EXPECT_EQ(channel.children.at("a")->singleWildcardCount, limit);
    channel.pushPattern("/a/b/**");
    EXPECT_EQ(channel.children.at("a")->children.at("b")->deepWildcardCount, 1);
}

}  // namespace
}  // namespace korvane::bayeux
