#include "korvane/codec/channel.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <tuple>
#include <vector>

#include "support/test_helpers.h"

namespace korvane::bayeux {
namespace {

using Segments = std::vector<std::string>;

// A node's hold counts as {exact, "/*", "/**"}.
std::vector<int> counts(const Channel& node) {
    return {node.exactCount, node.singleWildcardCount, node.deepWildcardCount};
}

TEST(Channel, SplitsDroppingEmptySegmentsAndMatchesByPatternKind) {
    const std::pair<std::string, Segments> splits[] = {
        {"", {}}, {"/", {}}, {"//", {}}, {"/a", {"a"}}, {"//a", {"a"}}, {"a/b", {"a", "b"}}, {"/a//b", {"a", "b"}},
        {"/a/b/", {"a", "b"}}, {"/a/b/c", {"a", "b", "c"}}, {"/a*/**", {"a*", "**"}},
    };
    for (const auto& [channel, expected] : splits) {
        EXPECT_EQ(splitChannel(channel), expected) << channel;
    }
    EXPECT_FALSE(Channel().channelMatches({"a"})) << "an empty set matches nothing";
    EXPECT_FALSE(Channel().channelMatches({}));
    // A wildcard that is not a whole final segment is literal text ("/a*", "/*/b").
    const std::tuple<std::string, std::string, bool> matches[] = {
        {"/a/b", "/a/b", true}, {"/a/b", "/a", false}, {"/a/b", "/a/b/c", false}, {"/a/b", "/a/c", false},
        {"/a//b", "/a/b", true}, {"/a/*", "/a/b", true}, {"/a/*", "/a", false}, {"/a/*", "/a/b/c", false},
        {"/a/*", "/b/c", false}, {"/a/**", "/a/b", true}, {"/a/**", "/a/b/c/d", true}, {"/a/**", "/a", false},
        {"/a/**", "/b/c", false}, {"/*", "/a", true}, {"/*", "/a/b", false}, {"/**", "/a", true},
        {"/**", "/a/b/c", true}, {"/a*", "/ab", false}, {"/a*", "/a*", true}, {"/*/b", "/a/b", false},
        {"/*/b", "/*/b", true},
    };
    for (const auto& [pattern, published, expected] : matches) {
        Channel channel;
        channel.pushPattern(pattern);
        EXPECT_EQ(channel.channelMatches(splitChannel(published)), expected) << pattern << " vs " << published;
    }
}

TEST(Channel, CountsEveryHoldPopsOnlyWhatIsHeldAndPrunesWhatEmptied) {
    Channel pushed;
    for (const char* pattern : {"/a/b", "/a/b", "/a/b/*", "/a/b/**", "/a", "/a/c/d"}) {
        pushed.pushPattern(pattern);
    }
    Channel channel;
    channel = Channel(std::move(pushed));  // both moves carry the whole tree
    const Channel& a = *channel.children.at("a");
    EXPECT_EQ(counts(a), (std::vector<int>{1, 0, 0}));
    EXPECT_EQ(counts(*a.children.at("b")), (std::vector<int>{2, 1, 1}));
    EXPECT_EQ(counts(*a.children.at("c")), (std::vector<int>{0, 0, 0}));
    EXPECT_EQ(a.children.size(), 2u);
    std::string popped;  // '+' for each pop that took a hold
    for (const char* pattern :
         {"/a/c", "/a/*", "/a/**", "/a/c/d/e", "/x", "/a/c/d/*", "/", "/a/c/d", "/a/b/*", "/a/b/*", "/a/b/**", "/a/b"}) {
        popped += channel.popPattern(pattern) ? '+' : '-';
    }
    EXPECT_EQ(popped, "-------++-++");
    EXPECT_EQ(a.children.count("c"), 0u) << "an emptied node goes";
    EXPECT_TRUE(channel.channelMatches({"a", "b"})) << "pushed twice, popped once";
    EXPECT_TRUE(channel.popPattern("/a/b"));
    EXPECT_FALSE(channel.channelMatches({"a", "b"}));
    EXPECT_TRUE(channel.channelMatches({"a"}));
    EXPECT_TRUE(channel.popPattern("/a"));
    EXPECT_TRUE(channel.children.empty()) << "emptied nodes are pruned up to the root";
}

TEST(Channel, FullCountRefusesAnotherHoldWithoutChange) {
    Channel channel;
    const unsigned limit = std::numeric_limits<std::uint16_t>::max();
    for (unsigned i = 0; i < limit; ++i) {
        channel.pushPattern("/a/*");
    }
    EXPECT_EQ(test_support::errorOf([&] { channel.pushPattern("/a/*"); }), "Too many subscriptions to one pattern.");
    EXPECT_EQ(channel.children.at("a")->singleWildcardCount, limit);
    channel.pushPattern("/a/b/**");
    EXPECT_EQ(channel.children.at("a")->children.at("b")->deepWildcardCount, 1);
}

}  // namespace
}  // namespace korvane::bayeux
