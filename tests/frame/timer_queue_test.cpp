#include "korvane/frame/timer_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "korvane/frame/manual_timer_backend.h"
#include "korvane/frame/timers.h"

namespace korvane::common {
namespace {

using std::chrono::milliseconds;

class ManualTimerTest : public ::testing::Test {
protected:
    void SetUp() override { installTimerBackend(backend); }
    void TearDown() override { installTimerBackend(nullptr); }

    std::shared_ptr<ManualTimerBackend> backend = std::make_shared<ManualTimerBackend>();
};

// A one-shot gate between two threads.
class Latch {
public:
    void open() {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            open_ = true;
        }
        condition_.notify_all();
    }
    void wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        condition_.wait(lock, [this] { return open_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable condition_;
    bool open_ = false;
};

TEST_F(ManualTimerTest, RunsTimersInDueOrderWithTheTickOfTheirDueTime) {
    struct Case {
        std::string name;
        milliseconds delay;
    };
    // Equal due times run in the order they were armed.
    const std::vector<Case> cases = {{"c", milliseconds(250)}, {"a", milliseconds(5)},  {"d", milliseconds(250)},
                                     {"b", milliseconds(99)},  {"e", milliseconds(1000)}, {"late", milliseconds(1001)}};
    std::vector<std::pair<std::string, long long>> ran;
    std::vector<TimerHandle> handles;
    for (const auto& entry : cases) {
        handles.push_back(backend->schedule([&ran, name = entry.name](long long tick) { ran.emplace_back(name, tick); },
                                            entry.delay, milliseconds(0)));
    }
    backend->advance(milliseconds(1000));

    const std::vector<std::pair<std::string, long long>> expected = {{"a", 0}, {"b", 0}, {"c", 2}, {"d", 2}, {"e", 10}};
    EXPECT_EQ(ran, expected);
    EXPECT_EQ(backend->now(), milliseconds(1000));
    EXPECT_EQ(backend->currentTick(), 10);
    EXPECT_EQ(backend->armedCount(), 1u);
}

TEST_F(ManualTimerTest, CallbackSeesTheClockAtItsOwnDueTime) {
    std::vector<long long> seen;
    auto handle = delay([&seen](long long tick) { seen.push_back(getCurrentTick()); seen.push_back(tick); }, 3);
    backend->advanceTicks(2);
    EXPECT_TRUE(seen.empty());
    backend->advanceTicks(5);
    EXPECT_EQ(seen, (std::vector<long long>{3, 3}));
    EXPECT_EQ(getCurrentTick(), 7);
}

TEST_F(ManualTimerTest, PeriodicTimerRearmsEveryPeriodAcrossATwoMinuteWindow) {
    std::vector<long long> ticks;
    auto handle = periodic([&ticks](long long tick) { ticks.push_back(tick); }, 100);
    backend->advance(milliseconds(120000));
    std::vector<long long> expected;
    for (long long tick = 100; tick <= 1200; tick += 100) {
        expected.push_back(tick);
    }
    EXPECT_EQ(ticks, expected);
    EXPECT_EQ(backend->armedCount(), 1u);
}

TEST_F(ManualTimerTest, ShortDelayFiresOnItsMillisecondAndNotBefore) {
    int fired = 0;
    auto handle = shortMsDelay([&fired](long long) { ++fired; }, 5);
    backend->advance(milliseconds(4));
    EXPECT_EQ(fired, 0);
    backend->advance(milliseconds(1));
    EXPECT_EQ(fired, 1);
    backend->advance(milliseconds(100));
    EXPECT_EQ(fired, 1);
    EXPECT_EQ(backend->armedCount(), 0u);
}

TEST_F(ManualTimerTest, TimersArmedByACallbackFireWithinTheSameAdvance) {
    std::vector<std::string> ran;
    TimerHandle inner;
    TimerHandle beyond;
    auto outer = backend->schedule(
        [&](long long) {
            ran.push_back("outer");
            inner = backend->schedule([&ran](long long) { ran.push_back("inner"); }, milliseconds(30), milliseconds(0));
            beyond = backend->schedule([&ran](long long) { ran.push_back("beyond"); }, milliseconds(80),
                                       milliseconds(0));
            backend->schedule([&ran](long long) { ran.push_back("dropped at once"); }, milliseconds(0),
                              milliseconds(0));
        },
        milliseconds(10), milliseconds(0));
    backend->advance(milliseconds(50));
    EXPECT_EQ(ran, (std::vector<std::string>{"outer", "inner"}));
    backend->advance(milliseconds(40));
    EXPECT_EQ(ran, (std::vector<std::string>{"outer", "inner", "beyond"}));
}

TEST_F(ManualTimerTest, ReleasedTimersNeverRunAndLeaveTheQueue) {
    int fired = 0;
    auto kept = delay([&fired](long long) { fired += 1; }, 1);
    auto released = delay([&fired](long long) { fired += 100; }, 1);
    auto releasedPeriodic = periodic([&fired](long long) { fired += 1000; }, 1);
    EXPECT_EQ(backend->armedCount(), 3u);
    released = nullptr;
    releasedPeriodic = nullptr;
    EXPECT_EQ(backend->armedCount(), 1u);
    backend->advanceTicks(3);
    EXPECT_EQ(fired, 1);
    kept = nullptr;  // after it ran: nothing to cancel, nothing to break
    EXPECT_EQ(backend->armedCount(), 0u);
}

TEST_F(ManualTimerTest, ManyTimersWithRandomReleasesRunSortedAndOnlyWhenKept) {
    std::mt19937 random(42);
    std::uniform_int_distribution<int> delays(0, 5000);
    std::vector<std::pair<int, int>> ran;  // (due in ms, index)
    std::vector<TimerHandle> handles;
    std::vector<bool> kept;
    for (int index = 0; index < 2000; ++index) {
        int due = delays(random);
        handles.push_back(backend->schedule([&ran, due, index](long long) { ran.emplace_back(due, index); },
                                            milliseconds(due), milliseconds(0)));
        kept.push_back(true);
    }
    for (int index = 0; index < 2000; index += 1 + static_cast<int>(random() % 3)) {
        handles[index] = nullptr;
        kept[index] = false;
    }
    const auto keptCount = static_cast<std::size_t>(std::count(kept.begin(), kept.end(), true));
    EXPECT_EQ(backend->armedCount(), keptCount);
    backend->advance(milliseconds(5000));
    ASSERT_EQ(ran.size(), keptCount);
    EXPECT_TRUE(std::is_sorted(ran.begin(), ran.end()));
    for (const auto& entry : ran) {
        EXPECT_TRUE(kept[entry.second]) << "released timer " << entry.second << " ran";
    }
}

// A job that owns its own handle, like a sweep that ends itself when idle.
struct SelfEndingJob {
    TimerHandle handle;
    int runs = 0;
    int stopAfter = 0;
};

TEST_F(ManualTimerTest, TimerReleasesItsOwnLastHandleFromInsideItsCallback) {
    for (bool isPeriodic : {false, true}) {
        SCOPED_TRACE(isPeriodic ? "periodic" : "once");
        auto job = std::make_shared<SelfEndingJob>();
        job->stopAfter = isPeriodic ? 3 : 1;
        auto captured = std::make_shared<int>(7);
        std::weak_ptr<int> capturedWatch = captured;
        auto callback = [raw = job.get(), captured = std::move(captured)](long long) {
            if (++raw->runs == raw->stopAfter) {
                raw->handle = nullptr;
            }
        };
        job->handle = isPeriodic ? periodic(std::move(callback), 2) : delay(std::move(callback), 2);
        backend->advanceTicks(20);
        EXPECT_EQ(job->runs, job->stopAfter);
        EXPECT_EQ(job->handle, nullptr);
        EXPECT_TRUE(capturedWatch.expired()) << "the callback's captures outlived its timer";
        EXPECT_EQ(backend->armedCount(), 0u);
    }
}

TEST_F(ManualTimerTest, CallbackThatOwnsItsOwnHandleIsFreedWithTheBackend) {
    auto captured = std::make_shared<int>(1);
    std::weak_ptr<int> capturedWatch = captured;
    auto holder = std::make_shared<TimerHandle>();
    *holder = periodic([holder, captured](long long) {}, 1);
    holder.reset();
    captured.reset();
    EXPECT_FALSE(capturedWatch.expired());
    installTimerBackend(nullptr);
    backend.reset();
    EXPECT_TRUE(capturedWatch.expired());
}

TEST_F(ManualTimerTest, HandleOutlivesItsBackend) {
    auto handle = delay([](long long) {}, 5);
    installTimerBackend(nullptr);
    backend.reset();
    EXPECT_NO_THROW(handle.reset());
}

TEST_F(ManualTimerTest, CallbackExceptionReachesTheAdvancingTestAndRetiresTheTimer) {
    auto failing = delay([](long long) { throw std::runtime_error("callback broke"); }, 1);
    int later = 0;
    auto laterTimer = delay([&later](long long) { ++later; }, 2);
    EXPECT_THROW(backend->advanceTicks(3), std::runtime_error);
    EXPECT_EQ(backend->armedCount(), 1u);
    backend->advance(milliseconds(0));
    EXPECT_EQ(later, 0) << "the clock stopped at the failing timer's due time";
    backend->advanceTicks(1);
    EXPECT_EQ(later, 1);
}

TEST_F(ManualTimerTest, SetTickMovesTheClockAndRunsNothingUntilTheNextAdvance) {
    std::vector<long long> ticks;
    auto once = delay([&ticks](long long tick) { ticks.push_back(tick); }, 10);
    auto every = periodic([&ticks](long long tick) { ticks.push_back(-tick); }, 4);
    backend->setTick(50);
    EXPECT_EQ(getCurrentTick(), 50);
    EXPECT_TRUE(ticks.empty());
    backend->advance(milliseconds(0));
    // Overdue timers run at once, and a periodic one that fell behind skips the missed beats.
    EXPECT_EQ(ticks, (std::vector<long long>{-50, 50}));
    backend->advanceTicks(4);
    EXPECT_EQ(ticks, (std::vector<long long>{-50, 50, -54}));
    EXPECT_THROW(backend->advance(milliseconds(-1)), std::invalid_argument);
    EXPECT_EQ(ManualTimerBackend(7).currentTick(), 7);
}

TEST(TimerBackendInstallation, EveryTimerFunctionThrowsWithoutABackend) {
    installTimerBackend(nullptr);
    EXPECT_THROW(getCurrentTick(), std::runtime_error);
    EXPECT_THROW(delay([](long long) {}, 1), std::runtime_error);
    EXPECT_THROW(periodic([](long long) {}, 1), std::runtime_error);
    EXPECT_THROW(shortMsDelay([](long long) {}, 5), std::runtime_error);
    EXPECT_THROW(timerBackend(), std::runtime_error);
}

TEST(TimerQueueConcurrency, ReleaseWaitsForTheCallbackRunningOnAnotherThread) {
    auto queue = std::make_shared<TimerQueue>();
    Latch entered;
    Latch releasing;
    Latch proceed;
    std::atomic<bool> releaseReturned{false};
    std::atomic<bool> releaseReturnedDuringCallback{false};
    auto captured = std::make_shared<int>(3);
    std::weak_ptr<int> capturedWatch = captured;
    auto handle = queue->arm(
        [&, captured = std::move(captured)](long long) {
            entered.open();
            proceed.wait();
            releaseReturnedDuringCallback = releaseReturned.load();
        },
        TimerQueue::Duration(0), TimerQueue::Duration(0));

    std::thread runner([&queue] { queue->runDue(TimerQueue::Duration(0)); });
    entered.wait();
    bool capturesGoneAtRelease = false;
    std::thread releaser([&] {
        releasing.open();
        handle = nullptr;
        releaseReturned = true;
        capturesGoneAtRelease = capturedWatch.expired();
    });
    releasing.wait();
    // Gives a release that fails to wait the time to return early, where the callback sees it.
    std::this_thread::sleep_for(milliseconds(20));
    proceed.open();
    releaser.join();
    runner.join();
    EXPECT_FALSE(releaseReturnedDuringCallback);
    EXPECT_TRUE(releaseReturned);
    EXPECT_TRUE(capturesGoneAtRelease);
}

TEST(TimerQueueConcurrency, ReleasedPeriodicTimerNeverStartsAgain) {
    auto queue = std::make_shared<TimerQueue>();
    std::atomic<int> runs{0};
    std::atomic<long long> rounds{0};
    std::atomic<bool> stop{false};
    auto handle = queue->arm([&runs](long long) { ++runs; }, TimerQueue::Duration(0), TimerQueue::Duration(1));
    std::thread runner([&] {
        while (!stop) {
            queue->runDue(TimerQueue::Duration(++rounds));
        }
    });
    while (runs < 100) {
        std::this_thread::yield();
    }
    handle = nullptr;
    const int runsAtRelease = runs;
    const long long roundsAtRelease = rounds;
    while (rounds < roundsAtRelease + 1000) {
        std::this_thread::yield();
    }
    stop = true;
    runner.join();
    EXPECT_EQ(runs, runsAtRelease);
}

}  // namespace
}  // namespace korvane::common
