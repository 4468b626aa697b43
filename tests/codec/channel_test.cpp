#include "korvane/codec/channel.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

namespace korvane::bayeux {
namespace {

using Segments = std::vector<std::string>;

TEST(SplitChannel, DropsEmptySegmentsAndReservesRoom) {
    const struct {
        std::string channel;
        Segments segments;
    } cases[] = {
        {"", {}},
        {"/", {}},
        {"//", {}},
        {"/a", {"a"}},
        {"//a", {"a"}},
        {"/a/b/c", {"a", "b", "c"}},
        {"/a//b", {"a", "b"}},
        {"/a/b/", {"a", "b"}},
        {"a/b", {"a", "b"}},
        {"/a*/**", {"a*", "**"}},
    };
    for (const auto& c : cases) {
        const Segments segments = splitChannel(c.channel);
        EXPECT_EQ(segments, c.segments) << c.channel;
        EXPECT_GE(segments.capacity(), 10u) << c.channel;
    }
}

TEST(Channel, MatchesByPatternKind) {
    const struct {
        std::string pattern;
        std::string channel;
        bool matches;
    } cases[] = {
        {"/a/b", "/a/b", true},
        {"/a/b", "/a", false},
        {"/a/b", "/a/b/c", false},
        {"/a/b", "/a/c", false},
        {"/a//b", "/a/b", true},
        {"/a/*", "/a/b", true},
        {"/a/*", "/a", false},
        {"/a/*", "/a/b/c", false},
        {"/a/*", "/b/c", false},
        {"/a/**", "/a/b", true},
        {"/a/**", "/a/b/c/d", true},
        {"/a/**", "/a", false},
        {"/a/**", "/b/c", false},
        {"/*", "/a", true},
        {"/*", "/a/b", false},
        {"/**", "/a", true},
        {"/**", "/a/b/c", true},
        // A wildcard that is not a whole final segment is literal text.
        {"/a*", "/ab", false},
        {"/a*", "/a*", true},
        {"/*/b", "/a/b", false},
        {"/*/b", "/*/b", true},
    };
    for (const auto& c : cases) {
        Channel channel;
        channel.pushPattern(c.pattern);
        EXPECT_EQ(channel.channelMatches(splitChannel(c.channel)), c.matches) << c.pattern << " vs " << c.channel;
    }
}

TEST(Channel, EmptySetMatchesNothing) {
    Channel channel;
    EXPECT_FALSE(channel.channelMatches({"a"}));
    EXPECT_FALSE(channel.channelMatches({}));
}

TEST(Channel, CountsEveryHoldAndPrunesEmptiedNodes) {
    Channel channel;
    channel.pushPattern("/a/b");
    channel.pushPattern("/a/b");
    channel.pushPattern("/a/b/*");
    channel.pushPattern("/a/b/**");
    const Channel& b = *channel.children.at("a")->children.at("b");
    EXPECT_EQ(b.exactCount, 2);
    EXPECT_EQ(b.singleWildcardCount, 1);
    EXPECT_EQ(b.deepWildcardCount, 1);
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

TEST(Channel, PopOfUnheldPatternChangesNothing) {
    Channel channel;
    channel.pushPattern("/a/b/c");
    for (const char* unheld : {"/a", "/a/b", "/a/*", "/a/**", "/a/b/c/d", "/x", "/a/b/c/*", "/"}) {
        EXPECT_FALSE(channel.popPattern(unheld)) << unheld;
    }
    ASSERT_EQ(channel.children.size(), 1u);
    const Channel& a = *channel.children.at("a");
    EXPECT_EQ(a.exactCount + a.singleWildcardCount + a.deepWildcardCount, 0);
    ASSERT_EQ(a.children.size(), 1u);
    EXPECT_EQ(a.children.at("b")->children.at("c")->exactCount, 1);
    EXPECT_TRUE(channel.channelMatches({"a", "b", "c"}));
}

TEST(Channel, PruningKeepsSiblingsAndAncestorsThatStillHoldPatterns) {
    Channel channel;
    channel.pushPattern("/a");
    channel.pushPattern("/a/b/c");
    channel.pushPattern("/a/d");
    EXPECT_TRUE(channel.popPattern("/a/b/c"));
    const Channel& a = *channel.children.at("a");
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

TEST(Channel, MoveCarriesThePatterns) {
    Channel source;
    source.pushPattern("/a/**");
    Channel moved(std::move(source));
    EXPECT_TRUE(moved.channelMatches({"a", "b"}));
    Channel assigned;
    assigned = std::move(moved);
    EXPECT_TRUE(assigned.channelMatches({"a", "b", "c"}));
}

}  // namespace
}  // namespace korvane::bayeux
