#include "korvane/host/threaded_timer_backend.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>

namespace korvane::host {
namespace {

using namespace std::chrono_literals;

// Runs a started backend and collects what its timer thread reports. The generous wait guards against a hang,
// it is never a timing check.
struct ThreadedTimerBackendConcurrency : ::testing::Test {
    void SetUp() override { backend.start(); }

    void note(std::string event) {
        std::lock_guard<std::mutex> guard(mutex);
        events.push_back(std::move(event));
        reported.notify_all();
    }
    // What was noted once there are `count` reports, or when the wait gave up.
    std::vector<std::string> waitFor(std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex);
        reported.wait_for(lock, 10s, [&] { return events.size() >= count; });
        return events;
    }
    common::TimerHandle at(std::chrono::milliseconds delay, std::string event) {
        return backend.schedule([this, event](long long) { note(event); }, delay, 0ms);
    }
    // What was noted once `before` reports are in and the timer thread has then run everything due within
    // `window`.
    std::vector<std::string> drain(std::chrono::milliseconds window, std::size_t before = 0) {
        const std::size_t seen = waitFor(before).size();
        auto marker = at(window, "drained");
        return waitFor(seen + 1);
    }

    std::mutex mutex;
    std::condition_variable reported;
    std::vector<std::string> events;
    ThreadedTimerBackend backend;
};

TEST_F(ThreadedTimerBackendConcurrency, RunsTimersInDueOrderPastAThrowingOneRefusesStopFromACallbackAndRestarts) {
    // The thread first sleeps towards the hour-long timer: each earlier one has to wake it.
    auto far = at(1h, "far");
    auto late = at(30ms, "30ms");
    auto refused = backend.schedule(
        [this](long long) {
            EXPECT_THROW(backend.stop(), std::logic_error);
            note("refused");
            throw std::runtime_error("broken callback");  // the timer thread outlives a throwing callback
        },
        0ms, 0ms);
    const long long tickBefore = backend.currentTick();
    auto early = backend.schedule(
        [&](long long tick) { note(tick >= tickBefore && tick <= backend.currentTick() ? "10ms" : "wrong tick"); },
        10ms, 0ms);
    auto middle = at(20ms, "20ms");
    EXPECT_EQ(waitFor(4), (std::vector<std::string>{"refused", "10ms", "20ms", "30ms"}));

    backend.stop();
    EXPECT_FALSE(backend.isRunning());
    auto waiting = at(0ms, "after restart");
    backend.start();
    EXPECT_EQ(waitFor(5), (std::vector<std::string>{"refused", "10ms", "20ms", "30ms", "after restart"}));
}

TEST_F(ThreadedTimerBackendConcurrency, PeriodicJobReleasesItsOwnLastHandleUnderItsOwnLock) {
    // Like a sweep that ends itself when idle: the job drops its handle while it holds the mutex that also
    // guards the handle's arming.
    std::mutex jobMutex;
    common::TimerHandle jobHandle;
    int runs = 0;
    std::unique_lock<std::mutex> arming(jobMutex);
    jobHandle = backend.schedule(
        [&](long long) {
            std::lock_guard<std::mutex> guard(jobMutex);
            if (++runs == 3) {
                jobHandle = nullptr;
            }
            note("run " + std::to_string(runs));
        },
        1ms, 1ms);
    arming.unlock();
    EXPECT_EQ(drain(10ms, 3), (std::vector<std::string>{"run 1", "run 2", "run 3", "drained"}));
}

TEST_F(ThreadedTimerBackendConcurrency, ReleaseWaitsForTheRunningCallback) {
    auto handle = backend.schedule(
        [this](long long) {
            note("entered");
            waitFor(2);  // until the test opens the gate
            note("finished");
        },
        0ms, 0ms);
    ASSERT_EQ(waitFor(1).size(), 1u);
    std::thread releaser([&] { handle = nullptr; note("released"); });
    // Gives a release that fails to wait the time to return early, before the gate opens.
    std::this_thread::sleep_for(20ms);
    note("gate opened");
    releaser.join();
    EXPECT_EQ(waitFor(4), (std::vector<std::string>{"entered", "gate opened", "finished", "released"}));
}

TEST_F(ThreadedTimerBackendConcurrency, NoCallbackStartsAfterItsReleaseReturnedOnAnyThread) {
    std::atomic<int> ran{0}, ranAfterRelease{0};
    auto armAndRelease = [&](int thread) {
        for (int round = 0; round < 300; ++round) {
            auto released = std::make_shared<std::atomic<bool>>(false);
            auto handle = backend.schedule([&, released](long long) { ++ran; ranAfterRelease += *released ? 1 : 0; },
                                           std::chrono::milliseconds(round % 3), std::chrono::milliseconds(thread % 2));
            std::this_thread::sleep_for(round % 5 == 0 ? 500us : 0us);
            handle = nullptr;
            released->store(true);
        }
    };
    std::thread threads[] = {std::thread(armAndRelease, 0), std::thread(armAndRelease, 1),
                             std::thread(armAndRelease, 2), std::thread(armAndRelease, 3)};
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(drain(5ms), std::vector<std::string>{"drained"});
    EXPECT_EQ(ranAfterRelease.load(), 0);
    EXPECT_GT(ran.load(), 0) << "no callback raced with its release";
}

TEST(ThreadedTimerBackendLifetimeConcurrency, LastReferenceDroppedByItsOwnCallbackEndsTheThreadQuietly) {
    auto backend = std::make_shared<ThreadedTimerBackend>();
    backend->start();
    std::mutex mutex;
    std::condition_variable done;
    bool destroyed = false;
    // The callback owns the only reference once the test lets go: dropping it destroys the
    // backend on its own timer thread, which must neither join itself nor touch freed state.
    auto owner = std::make_shared<std::shared_ptr<ThreadedTimerBackend>>(backend);
    auto handle = backend->schedule(
        [owner, &mutex, &done, &destroyed](long long) {
            owner->reset();
            std::lock_guard<std::mutex> guard(mutex);
            destroyed = true;
            done.notify_all();
        },
        5ms, 0ms);
    backend.reset();
    {
        std::unique_lock<std::mutex> lock(mutex);
        EXPECT_TRUE(done.wait_for(lock, 10s, [&] { return destroyed; }));
    }
    handle = nullptr;
    // Lets the detached thread leave before the process checks for leaks.
    std::this_thread::sleep_for(20ms);
}

}  // namespace
}  // namespace korvane::host
