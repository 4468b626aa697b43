#pragma once

// A latency histogram of bounded size: values below 128 are counted exactly, and
// every power of two above is split into 64 linear sub-buckets, so that any value
// is reported within 1/128 of itself. Values beyond 2^40 count as 2^40.
//
// Threading: none; each I/O thread records into its own and the main thread merges
// copies of them.

#include <array>
#include <cstdint>

namespace korvane::load {

class LatencyHistogram {
public:
    static constexpr int kSubBucketBits = 6;
    static constexpr int kMaxValueBits = 40;
    static constexpr std::size_t kBucketCount = (kMaxValueBits - kSubBucketBits + 1) << kSubBucketBits;

    void record(std::uint64_t value);
    void merge(const LatencyHistogram& other);
    void clear();

    std::uint64_t count() const { return recorded; }
    std::uint64_t max() const { return largest; }
    // The value at quantile `q` (0..1): the midpoint of the bucket holding the
    // ceil(q * count)-th smallest value, never above the largest recorded. 0 when empty.
    std::uint64_t valueAtQuantile(double q) const;

    // Bucket layout, for walking the distribution (the CDF of a plot).
    static std::size_t bucketOf(std::uint64_t value);
    static std::uint64_t lowestValueOf(std::size_t bucket);
    static std::uint64_t widthOf(std::size_t bucket);
    std::uint64_t countAt(std::size_t bucket) const { return counts[bucket]; }

private:
    std::array<std::uint64_t, kBucketCount> counts{};
    std::uint64_t recorded = 0;
    std::uint64_t largest = 0;
};

}  // namespace korvane::load
