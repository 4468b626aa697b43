#include "korvane/cluster/channel_sharding.h"

#include <gtest/gtest.h>

#include <string>

namespace korvane::cluster {
namespace {

TEST(ChannelSharding, PatternKeysBecomeRedisNamesThatTakeThePrefixLiterally) {
    const struct {
        std::string key;
        bool wildcard;
        std::string path;
    } keys[] = {
        {"a/b", false, "/a/b"}, {"a/*", true, "/a/"}, {"a/b/**", true, "/a/b/"},
        {"*", true, "/"},       {"**", true, "/"},    {"a/**b", false, "/a/**b"},
    };
    for (const auto& expected : keys) {
        EXPECT_EQ(isWildcardKey(expected.key), expected.wildcard) << expected.key;
        EXPECT_EQ(keyPath(expected.key), expected.path) << expected.key;
    }
    EXPECT_EQ(redisGlob("p[*]?\\:/a/"), "p\\[\\*\\]\\?\\\\:/a/*");
}

TEST(ChannelSharding, EveryServerPlacesAChannelAlikeAndAnAddedShardTakesChannelsOnlyForItself) {
    // Pinned: servers of different builds must agree.
    EXPECT_EQ(shardOf("/user/1", 3), 1u);
    EXPECT_EQ(shardOf("/user/2", 3), 0u);
    EXPECT_EQ(shardOf("/user/3", 3), 2u);
    EXPECT_EQ(shardOf("/anything", 1), 0u);
    int moved = 0;
    for (int n = 0; n < 3000; ++n) {
        const std::string channel = "/user/" + std::to_string(n);
        const std::size_t before = shardOf(channel, 2), after = shardOf(channel, 3);
        ASSERT_TRUE(after == before || after == 2) << channel;
        moved += after != before;
    }
    EXPECT_NEAR(moved, 1000, 150) << "a third of the channels move to the new shard";
}

}  // namespace
}  // namespace korvane::cluster
