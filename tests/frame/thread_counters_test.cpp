// Per-thread counters: a scrape sees every thread's counts, never loses or doubles those
// of a thread that exits meanwhile, and keeps the highest mark any thread raised.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "korvane/frame/thread_counters.h"

namespace korvane::common {

TEST(ThreadCountersConcurrency, TotalsGrowSteadilyWhileThreadsCountAndExit) {
    ThreadCounters& counters = ThreadCounters::process(2, 1);
    constexpr std::uint64_t threads = 4;
    constexpr std::uint64_t adds = 20000;
    std::vector<std::thread> workers;
    for (std::uint64_t worker = 0; worker < threads; ++worker) {
        workers.emplace_back([&counters, worker] {
            for (std::uint64_t i = 0; i < adds; ++i) {
                counters.add(0);
                counters.add(1, 2);
            }
            counters.raise(2, 100 + worker);
        });
    }
    // Scraped while the threads count and exit, each folding its block into the retired totals.
    std::atomic<bool> joined{false};
    std::thread scraper([&counters, &joined] {
        for (std::uint64_t seen = 0; !joined;) {
            const std::uint64_t now = counters.totals()[0];
            EXPECT_GE(now, seen);
            EXPECT_LE(now, threads * adds);
            seen = now;
        }
    });
    for (std::thread& worker : workers) {
        worker.join();
    }
    joined = true;
    scraper.join();
    EXPECT_EQ(counters.totals(), (std::vector<std::uint64_t>{threads * adds, 2 * threads * adds, 100 + threads - 1}));
}

}  // namespace korvane::common
