#include "load/latency_histogram.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>

namespace korvane::load {
namespace {

TEST(LatencyHistogram, BucketsCoverEveryValueWithinOnePart128) {
    std::uint64_t previousLowest = 0;
    for (std::size_t bucket = 1; bucket < LatencyHistogram::kBucketCount; ++bucket) {
        const std::uint64_t lowest = LatencyHistogram::lowestValueOf(bucket);
        EXPECT_EQ(lowest, previousLowest + LatencyHistogram::widthOf(bucket - 1)) << "bucket " << bucket;
        EXPECT_EQ(LatencyHistogram::bucketOf(lowest), bucket);
        EXPECT_EQ(LatencyHistogram::bucketOf(lowest + LatencyHistogram::widthOf(bucket) - 1), bucket);
        EXPECT_LE(LatencyHistogram::widthOf(bucket) * 128, std::max<std::uint64_t>(lowest * 2, 128));
        previousLowest = lowest;
    }
    EXPECT_EQ(LatencyHistogram::bucketOf(~0ULL), LatencyHistogram::kBucketCount - 1);
}

TEST(LatencyHistogram, SmallValuesAreExactAndLargeOnesWithinTheBucketError) {
    LatencyHistogram small, uniform;
    for (std::uint64_t value : {5, 1, 3, 2, 4}) {
        small.record(value);
    }
    for (std::uint64_t value = 1; value <= 1000000; ++value) {
        uniform.record(value);
    }
    const struct {
        const LatencyHistogram& histogram;
        double quantile, value, error;
    } cases[] = {{small, 0.0, 1, 0},        {small, 0.2, 1, 0},          {small, 0.21, 2, 0},
                 {small, 0.5, 3, 0},        {small, 0.8, 4, 0},          {small, 0.99, 5, 0},
                 {small, 1.0, 5, 0},        {uniform, 0.5, 500000, 3906}, {uniform, 0.9, 900000, 7031},
                 {uniform, 0.99, 990000, 7734}, {uniform, 0.999, 999000, 7804}, {uniform, 1.0, 1000000, 0}};
    for (const auto& c : cases) {
        EXPECT_NEAR(static_cast<double>(c.histogram.valueAtQuantile(c.quantile)), c.value, c.error)
            << "q=" << c.quantile;
    }
    EXPECT_EQ(small.count(), 5u);
    EXPECT_EQ(small.max(), 5u);
    EXPECT_EQ(LatencyHistogram().valueAtQuantile(0.5), 0u);
}

TEST(LatencyHistogram, MergingPerThreadHistogramsEqualsRecordingIntoOne) {
    std::mt19937_64 random(7);
    std::lognormal_distribution<double> latency(7.0, 1.5);
    LatencyHistogram whole, merged, perThread[3];
    for (int i = 0; i < 300000; ++i) {
        const auto value = static_cast<std::uint64_t>(latency(random));
        whole.record(value);
        perThread[i % 3].record(value);
    }
    for (const LatencyHistogram& part : perThread) {
        merged.merge(part);
    }
    EXPECT_EQ(merged.count(), whole.count());
    EXPECT_EQ(merged.max(), whole.max());
    for (std::size_t bucket = 0; bucket < LatencyHistogram::kBucketCount; ++bucket) {
        ASSERT_EQ(merged.countAt(bucket), whole.countAt(bucket)) << "bucket " << bucket;
    }
    merged.clear();
    EXPECT_EQ(merged.count(), 0u);
}

}  // namespace
}  // namespace korvane::load
