#include <gtest/gtest.h>

#include <chrono>
#include <vector>

#include "korvane/cluster/backoff.h"

namespace korvane::cluster {
namespace {

using std::chrono::milliseconds;

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

}  // namespace
}  // namespace korvane::cluster
