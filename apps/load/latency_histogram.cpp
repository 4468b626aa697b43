#include "load/latency_histogram.h"

#include <algorithm>
#include <cmath>

namespace korvane::load {
namespace {

constexpr std::uint64_t kExactLimit = 2ULL << LatencyHistogram::kSubBucketBits;
constexpr std::uint64_t kLargestValue = (1ULL << LatencyHistogram::kMaxValueBits) - 1;

int highestBit(std::uint64_t value) { return 63 - __builtin_clzll(value); }

}  // namespace

std::size_t LatencyHistogram::bucketOf(std::uint64_t value) {
    value = std::min(value, kLargestValue);
    if (value < kExactLimit) {
        return static_cast<std::size_t>(value);
    }
    const int shift = highestBit(value) - kSubBucketBits;
    return (static_cast<std::size_t>(shift) << kSubBucketBits) + static_cast<std::size_t>(value >> shift);
}

std::uint64_t LatencyHistogram::lowestValueOf(std::size_t bucket) {
    if (bucket < kExactLimit) {
        return bucket;
    }
    const std::size_t shift = (bucket >> kSubBucketBits) - 1;
    const std::uint64_t mantissa = (bucket & ((1U << kSubBucketBits) - 1)) + (1U << kSubBucketBits);
    return mantissa << shift;
}

std::uint64_t LatencyHistogram::widthOf(std::size_t bucket) {
    return bucket < kExactLimit ? 1 : 1ULL << ((bucket >> kSubBucketBits) - 1);
}

void LatencyHistogram::record(std::uint64_t value) {
    ++counts[bucketOf(value)];
    ++recorded;
    largest = std::max(largest, value);
}

void LatencyHistogram::merge(const LatencyHistogram& other) {
    for (std::size_t i = 0; i < kBucketCount; ++i) {
        counts[i] += other.counts[i];
    }
    recorded += other.recorded;
    largest = std::max(largest, other.largest);
}

void LatencyHistogram::clear() { *this = LatencyHistogram(); }

std::uint64_t LatencyHistogram::valueAtQuantile(double q) const {
    if (recorded == 0) {
        return 0;
    }
    const double clamped = std::min(1.0, std::max(0.0, q));
    const std::uint64_t rank = std::max<std::uint64_t>(1, static_cast<std::uint64_t>(std::ceil(clamped * recorded)));
    std::uint64_t seen = 0;
    for (std::size_t i = 0; i < kBucketCount; ++i) {
        seen += counts[i];
        if (seen >= rank) {
            return std::min(largest, lowestValueOf(i) + widthOf(i) / 2);
        }
    }
    return largest;
}

}  // namespace korvane::load
