#include "load/process_probe.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace korvane::load {
namespace {

using Samples = std::vector<std::pair<std::int64_t, std::int64_t>>;

// One sample a minute for an hour, RSS from `kbAt(second)`.
template <typename Rss>
Samples hourOfSamples(Rss kbAt) {
    Samples samples;
    for (std::int64_t second = 0; second <= 3600; second += 60) {
        samples.emplace_back(second, kbAt(second));
    }
    return samples;
}

TEST(RssDrift, FollowsTheTrendAfterSettlingNotTheSwings) {
    struct Case {
        std::string name;
        Samples samples;
        double duration;
        std::optional<double> expected;
    };
    const std::vector<Case> cases = {
        // The setup burst before 10 minutes does not count.
        {"flat after a burst", hourOfSamples([](std::int64_t s) { return s < 600 ? 55000 : 28000; }), 3600, 0},
        // Swings of 4% either way, minute after minute, around a level that stays.
        {"swinging", hourOfSamples([](std::int64_t s) { return (s / 60) % 2 ? 29120 : 26880; }), 3600, 0},
        // A leak: 3,000 kB more over the 50 settled minutes, from 30,000 kB.
        {"growing", hourOfSamples([](std::int64_t s) { return 30000 + (s - 600); }), 3600, 10},
        {"shrinking", hourOfSamples([](std::int64_t s) { return 30000 - (s - 600) / 3; }), 3600, -100.0 / 30},
        // A short run settles after its first sixth: 60 s of 360.
        {"short run", {{0, 9000}, {60, 10000}, {180, 10400}, {360, 11000}}, 360, 10},
        {"one settled sample", {{0, 9000}, {600, 10000}}, 3600, std::nullopt},
        {"none settled", {{0, 9000}, {300, 10000}}, 3600, std::nullopt},
    };
    for (const Case& c : cases) {
        const std::optional<double> drift = rssDriftPercent(c.samples, c.duration);
        ASSERT_EQ(drift.has_value(), c.expected.has_value()) << c.name;
        if (drift) {
            EXPECT_NEAR(*drift, *c.expected, 0.05) << c.name;
        }
    }
}

}  // namespace
}  // namespace korvane::load
