// What the load tool's smoke runs cannot see: latency quantiles, RSS drift after settling, and replies the
// server never writes (escapes, nesting, faults). Its counting of every message is what the smoke runs check.

#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "load/latency_histogram.h"
#include "load/message_scanner.h"
#include "load/process_probe.h"

namespace korvane::load {
namespace {

using Samples = std::vector<std::pair<std::int64_t, std::int64_t>>;

TEST(LatencyHistogram, QuantilesAreExactBelow128AndWithinOnePart128AboveAndHalvesMergeIntoTheWhole) {
    LatencyHistogram small, uniform, halves[2], merged;
    for (std::uint64_t value : {5, 1, 3, 2, 4}) {
        small.record(value);
    }
    for (std::uint64_t value = 1; value <= 1000000; ++value) {
        uniform.record(value);
        halves[value % 2].record(value);
    }
    const std::tuple<const LatencyHistogram&, double, double, double> cases[] = {  // of, quantile, value, error{small, 0.0, 1, 0},           {small, 0.2, 1, 0},             {small, 0.21, 2, 0},
                 {small, 0.5, 3, 0},           {small, 0.8, 4, 0},             {small, 1.0, 5, 0},
                 {uniform, 0.5, 500000, 3906}, {uniform, 0.99, 990000, 7734}, {uniform, 1.0, 1000000, 0}};
    for (const auto& [histogram, quantile, value, error] : cases) {
        EXPECT_NEAR(static_cast<double>(histogram.valueAtQuantile(quantile)), value, error) << quantile;
    }
    EXPECT_EQ(LatencyHistogram().valueAtQuantile(0.5), 0u);
    EXPECT_EQ(LatencyHistogram::bucketOf(~0ULL), LatencyHistogram::kBucketCount - 1) << "beyond 2^40 counts as 2^40";
    merged.merge(halves[0]);
    merged.merge(halves[1]);
    EXPECT_EQ(merged.count(), uniform.count());
    EXPECT_EQ(merged.max(), uniform.max());
    for (std::size_t bucket = 0; bucket < LatencyHistogram::kBucketCount; ++bucket) {
        ASSERT_EQ(merged.countAt(bucket), uniform.countAt(bucket)) << "bucket " << bucket;
    }
}

TEST(MessageFields, ScanFindsEachTopLevelValueAndRefusesWhatIsNotAWholeObject) {
    const std::tuple<std::string, std::string, std::string> cases[] = {  // object, field, its raw value or "fault"
        {R"({ "a" : -12 , "b" : "x" })", "b", R"("x")"},        {R"({"a":"q\"{]","b":2})", "b", "2"},
        {R"({"a":"\\\"","b":[1,{"c":"]"}]})", "b", R"([1,{"c":"]"}])"}, {"{}", "a", "absent"},
        {R"({"data":{"p":1,"x":"}}"},"id":"7"})", "data", R"({"p":1,"x":"}}"})"},
        {R"({"a":"ends in \\","b":"open)", "b", "fault"}, {R"({"a":{"b":1})", "a", "fault"},
        {R"({"a" 1})", "a", "fault"},                        {R"({"a":})", "a", "fault"}};
    MessageFields fields;
    for (const auto& [object, field, expected] : cases) {
        const std::size_t end = fields.scan(object, 0);
        EXPECT_EQ(end == std::string_view::npos ? "fault" : fields.value(field).value_or("absent"), expected) << object;
        EXPECT_TRUE(end == object.size() || end == std::string_view::npos) << object;
    }
}

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
    const std::tuple<std::string, Samples, double, std::optional<double>> cases[] = {  // name, samples, duration, drift
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
    for (const auto& [name, samples, duration, expected] : cases) {
        const std::optional<double> drift = rssDriftPercent(samples, duration);
        ASSERT_EQ(drift.has_value(), expected.has_value()) << name;
        if (drift) {
            EXPECT_NEAR(*drift, *expected, 0.05) << name;
        }
    }
}

}  // namespace
}  // namespace korvane::load
