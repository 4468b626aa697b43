// The scrape path: per-thread counters summed across threads, then written in the text format.

#include "korvane/frame/metrics.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "korvane/frame/thread_counters.h"
#include "support/test_helpers.h"

namespace korvane::common {

// Label values are quoted as the text format reads them back: backslash, double quote and
// line feed escaped; a plain value is read back by the interop metrics test.
TEST(MetricsWriter, EscapesLabelValues) {
    const std::pair<std::string, std::string> rows[] = {
        {"a\\b", R"(m{l="a\\b"} 1)"},
        {"say \"hi\"", R"(m{l="say \"hi\""} 1)"},
        {"two\nlines", R"(m{l="two\nlines"} 1)"},
    };
    for (const auto& [value, line] : rows) {
        MetricsWriter writer;
        writer.sample("m", std::uint64_t{1}, {{"l", value}});
        EXPECT_EQ(writer.text(), line + "\n") << value;
    }
}

// A scrape sees every thread's counts, never loses or doubles those of a thread that exits
// meanwhile, and keeps the highest mark any thread raised.
TEST(ThreadCountersConcurrency, TotalsGrowSteadilyWhileThreadsCountAndExit) {
    ThreadCounters& counters = ThreadCounters::process(2, 1);
    constexpr std::uint64_t threads = 4, adds = 20000;
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
    test_support::onThreads(threads, [&counters](int worker) {
        for (std::uint64_t i = 0; i < adds; ++i) {
            counters.add(0);
            counters.add(1, 2);
        }
        counters.raise(2, 100 + static_cast<std::uint64_t>(worker));
    });
    joined = true;
    scraper.join();
    EXPECT_EQ(counters.totals(), (std::vector<std::uint64_t>{threads * adds, 2 * threads * adds, 100 + threads - 1}));
}

}  // namespace korvane::common
