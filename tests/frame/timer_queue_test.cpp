#include "korvane/frame/timer_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
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
using Ticks = std::vector<long long>;
using Names = std::vector<std::string>;

class ManualTimerTest : public ::testing::Test {
protected:
    void SetUp() override { installTimerBackend(backend); }
    void TearDown() override { installTimerBackend(nullptr); }

    TimerHandle once(TimerCallback callback, long long ms) {
        return backend->schedule(std::move(callback), milliseconds(ms), milliseconds(0));
    }
    // Arms a timer that appends `name` to `ran`, `ms` from now.
    TimerHandle named(Names& ran, const std::string& name, long long ms) {
        return once([&ran, name](long long) { ran.push_back(name); }, ms);
    }

    std::shared_ptr<ManualTimerBackend> backend = std::make_shared<ManualTimerBackend>();
};

TEST_F(ManualTimerTest, RunsTimersInDueOrderWithTheTickOfTheirDueTime) {
    // Equal due times run in the order they were armed.
    const std::vector<std::pair<std::string, long long>> armed = {{"c", 250}, {"a", 5},    {"d", 250},
                                                                  {"b", 99},  {"e", 1000}, {"late", 1001}};
    Names ran;
    std::vector<TimerHandle> handles;
    for (const auto& [name, delayMs] : armed) {
        handles.push_back(once([&ran, name = name](long long tick) { ran.push_back(name + std::to_string(tick)); },
                               delayMs));
    }
    backend->advance(milliseconds(1000));
    EXPECT_EQ(ran, (Names{"a0", "b0", "c2", "d2", "e10"}));
    EXPECT_EQ(backend->now(), milliseconds(1000));
    EXPECT_EQ(backend->currentTick(), 10);
    EXPECT_EQ(backend->armedCount(), 1u) << "the late one still waits";
}

TEST_F(ManualTimerTest, DelayPeriodicAndShortDelayFireOnTheirDueTimeOnly) {
    Ticks seen;
    auto delayed = delay([&seen](long long tick) { seen.insert(seen.end(), {getCurrentTick(), tick}); }, 3);
    backend->advanceTicks(2);
    EXPECT_TRUE(seen.empty());
    backend->advanceTicks(5);
    EXPECT_EQ(seen, (Ticks{3, 3})) << "the callback sees the clock at its own due time";
    EXPECT_EQ(getCurrentTick(), 7);

    Ticks beats;  // armed at tick 7, every 100 ticks across a two-minute window
    auto every = periodic([&beats](long long tick) { beats.push_back(tick); }, 100);
    backend->advance(milliseconds(120000));
    EXPECT_EQ(beats, (Ticks{107, 207, 307, 407, 507, 607, 707, 807, 907, 1007, 1107, 1207}));
    EXPECT_EQ(backend->armedCount(), 1u);
    every = nullptr;

    int fired = 0;
    auto shortDelay = shortMsDelay([&fired](long long) { ++fired; }, 5);
    for (const auto& [step, firedAfter] : std::vector<std::pair<long long, int>>{{4, 0}, {1, 1}, {100, 1}}) {
        backend->advance(milliseconds(step));
        EXPECT_EQ(fired, firedAfter) << "after " << step << " ms more";
    }
    EXPECT_EQ(backend->armedCount(), 0u);
}

TEST_F(ManualTimerTest, TimersArmedByACallbackFireWithinTheSameAdvance) {
    Names ran;
    TimerHandle inner;
    TimerHandle beyond;
    auto outer = once(
        [&](long long) {
            ran.push_back("outer");
            inner = named(ran, "inner", 30);
            beyond = named(ran, "beyond", 80);
            named(ran, "dropped at once", 0);
        },
        10);
    backend->advance(milliseconds(50));
    EXPECT_EQ(ran, (Names{"outer", "inner"}));
    backend->advance(milliseconds(40));
    EXPECT_EQ(ran, (Names{"outer", "inner", "beyond"}));
}

TEST_F(ManualTimerTest, CallbackMayMoveTheClockItselfWithoutDeadlock) {
    Names ran;
    TimerHandle passed = named(ran, "passed by the nested advance", 60);
    TimerHandle later = named(ran, "after both", 300);
    auto mover = once(
        [&](long long) {
            ran.push_back("mover");
            backend->advance(milliseconds(100));
            ran.push_back("nested advance returned at " + std::to_string(backend->now().count()));
        },
        10);
    backend->advance(milliseconds(50));
    EXPECT_EQ(ran, (Names{"mover", "passed by the nested advance", "nested advance returned at 110"}));
    EXPECT_EQ(backend->now(), milliseconds(110)) << "the outer advance never moves the clock back";
    backend->advance(milliseconds(200));
    EXPECT_EQ(ran.back(), "after both");
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

    // Many timers at random due times, released at random places in the queue.
    std::mt19937 random(42);
    Names ran;
    std::vector<TimerHandle> handles;
    std::vector<long long> dues;
    for (int index = 0; index < 2000; ++index) {
        dues.push_back(random() % 5001);
        handles.push_back(named(ran, std::to_string(index), dues.back()));
    }
    for (std::size_t index = 0; index < handles.size(); index += 1 + random() % 3) {
        handles[index] = nullptr;
    }
    std::vector<std::pair<long long, std::string>> expected;  // (due, name) of the kept ones
    for (std::size_t index = 0; index < handles.size(); ++index) {
        if (handles[index]) {
            expected.emplace_back(dues[index], std::to_string(index));
        }
    }
    EXPECT_EQ(backend->armedCount(), expected.size());
    backend->advance(milliseconds(5000));
    // Stable: equal due times keep the order they were armed in.
    std::stable_sort(expected.begin(), expected.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    Names expectedNames;
    for (const auto& entry : expected) {
        expectedNames.push_back(entry.second);
    }
    EXPECT_EQ(ran, expectedNames);
}

TEST_F(ManualTimerTest, TimerReleasesItsOwnLastHandleFromInsideItsCallback) {
    for (bool isPeriodic : {false, true}) {
        SCOPED_TRACE(isPeriodic ? "periodic" : "once");
        TimerHandle handle;  // owned by the job itself, like a sweep that ends itself when idle
        int runs = 0;
        const int stopAfter = isPeriodic ? 3 : 1;
        auto captured = std::make_shared<int>(7);
        std::weak_ptr<int> capturedWatch = captured;
        auto callback = [&, captured = std::move(captured)](long long) {
            if (++runs == stopAfter) {
                handle = nullptr;
            }
        };
        handle = isPeriodic ? periodic(std::move(callback), 2) : delay(std::move(callback), 2);
        backend->advanceTicks(20);
        EXPECT_EQ(runs, stopAfter);
        EXPECT_EQ(handle, nullptr);
        EXPECT_TRUE(capturedWatch.expired()) << "the callback's captures outlived its timer";
        EXPECT_EQ(backend->armedCount(), 0u);
    }
}

TEST_F(ManualTimerTest, CallbackOwningItsHandleIsFreedWithTheBackendAndHandlesOutliveIt) {
    auto captured = std::make_shared<int>(1);
    std::weak_ptr<int> capturedWatch = captured;
    auto holder = std::make_shared<TimerHandle>();
    *holder = periodic([holder, captured](long long) {}, 1);
    holder.reset();
    captured.reset();
    EXPECT_FALSE(capturedWatch.expired());
    auto outliving = delay([](long long) {}, 5);
    installTimerBackend(nullptr);
    backend.reset();
    EXPECT_TRUE(capturedWatch.expired());
    EXPECT_NO_THROW(outliving.reset());
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
    Ticks ticks;
    auto delayed = delay([&ticks](long long tick) { ticks.push_back(tick); }, 10);
    auto every = periodic([&ticks](long long tick) { ticks.push_back(-tick); }, 4);
    backend->setTick(50);
    EXPECT_EQ(getCurrentTick(), 50);
    EXPECT_TRUE(ticks.empty());
    backend->advance(milliseconds(0));
    // Overdue timers run at once, and a periodic one that fell behind skips the missed beats.
    EXPECT_EQ(ticks, (Ticks{-50, 50}));
    backend->advanceTicks(4);
    EXPECT_EQ(ticks, (Ticks{-50, 50, -54}));
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
    std::promise<void> entered, releasing, proceed;
    std::future<void> hasEntered = entered.get_future(), isReleasing = releasing.get_future();
    std::future<void> mayProceed = proceed.get_future();
    std::atomic<bool> releaseReturned{false};
    std::atomic<bool> releaseReturnedDuringCallback{false};
    auto captured = std::make_shared<int>(3);
    std::weak_ptr<int> capturedWatch = captured;
    auto handle = queue->arm(
        [&, captured = std::move(captured)](long long) {
            entered.set_value();
            mayProceed.wait();
            releaseReturnedDuringCallback = releaseReturned.load();
        },
        TimerQueue::Duration(0), TimerQueue::Duration(0));

    std::thread runner([&queue] { queue->runDue(TimerQueue::Duration(0)); });
    hasEntered.wait();
    bool capturesGoneAtRelease = false;
    std::thread releaser([&] {
        releasing.set_value();
        handle = nullptr;
        releaseReturned = true;
        capturesGoneAtRelease = capturedWatch.expired();
    });
    isReleasing.wait();
    // Gives a release that fails to wait the time to return early, where the callback sees it.
    std::this_thread::sleep_for(milliseconds(20));
    proceed.set_value();
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
