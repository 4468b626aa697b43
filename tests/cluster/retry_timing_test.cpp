#include <gtest/gtest.h>

#include <chrono>
#include <vector>

#include "korvane/cluster/backoff.h"
#include "korvane/frame/warning_throttle.h"

namespace korvane::cluster {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(Backoff, DoublesUpToTheCapAndStartsOverAfterASuccess) {
    Backoff backoff(milliseconds(100), milliseconds(5000));
    std::vector<long> waits;
    for (int i = 0; i < 9; ++i) {
        waits.push_back(static_cast<long>(backoff.next().count()));
    }
    EXPECT_EQ(waits, (std::vector<long>{100, 200, 400, 800, 1600, 3200, 5000, 5000, 5000}));
    backoff.reset();
    EXPECT_EQ(backoff.next(), milliseconds(100));
}

TEST(WarningThrottle, LetsOneWarningThroughPerPeriod) {
    common::WarningThrottle throttle(seconds(10));
    const common::WarningThrottle::Clock::time_point start{};
    const struct {
        milliseconds at;
        bool allowed;
    } steps[] = {
        {milliseconds(0), true},     {milliseconds(1), false},     {milliseconds(9999), false},
        {milliseconds(10000), true}, {milliseconds(15000), false}, {milliseconds(19999), false},
        {milliseconds(20000), true}, {milliseconds(95000), true},  {milliseconds(95001), false},
    };
    for (const auto& step : steps) {
        EXPECT_EQ(throttle.allow(start + step.at), step.allowed) << step.at.count() << " ms";
    }
}

}  // namespace
}  // namespace korvane::cluster
