#include "korvane/host/threaded_timer_backend.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace korvane::host {
namespace {

using std::chrono::milliseconds;

// Collects what the timer thread reports and lets the test wait for a count of
// reports. The generous wait is a guard against a hang, never a timing check.
class Recorder {
public:
    void record(std::string event) {
        {
            std::lock_guard<std::mutex> guard(mutex_);
            events_.push_back(std::move(event));
        }
        condition_.notify_all();
    }
    bool waitFor(std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return condition_.wait_for(lock, std::chrono::seconds(10), [&] { return events_.size() >= count; });
    }
    std::vector<std::string> events() {
        std::lock_guard<std::mutex> guard(mutex_);
        return events_;
    }

private:
    std::mutex mutex_;
    std::condition_variable condition_;
    std::vector<std::string> events_;
};

class ThreadedTimerBackendConcurrency : public ::testing::Test {
protected:
    void SetUp() override { backend->start(); }

    // Waits until the timer thread has run everything due within `window` from now.
    void drain(milliseconds window) {
        Recorder done;
        auto marker = backend->schedule([&done](long long) { done.record("drained"); }, window, milliseconds(0));
        ASSERT_TRUE(done.waitFor(1));
    }

    std::shared_ptr<ThreadedTimerBackend> backend = std::make_shared<ThreadedTimerBackend>();
};

TEST_F(ThreadedTimerBackendConcurrency, RunsTimersInDueOrderWithTheCurrentTick) {
    Recorder recorder;
    std::atomic<long long> tickArgument{-1};
    const long long tickBefore = backend->currentTick();
    auto late = backend->schedule([&](long long) { recorder.record("30ms"); }, milliseconds(30), milliseconds(0));
    auto early = backend->schedule([&](long long tick) { tickArgument = tick; recorder.record("10ms"); },
                                   milliseconds(10), milliseconds(0));
    auto middle = backend->schedule([&](long long) { recorder.record("20ms"); }, milliseconds(20), milliseconds(0));
    ASSERT_TRUE(recorder.waitFor(3));
    EXPECT_EQ(recorder.events(), (std::vector<std::string>{"10ms", "20ms", "30ms"}));
    EXPECT_GE(tickArgument.load(), tickBefore);
    EXPECT_LE(tickArgument.load(), backend->currentTick());
}

TEST_F(ThreadedTimerBackendConcurrency, EarlierTimerWakesTheSleepingThread) {
    Recorder recorder;
    auto far = backend->schedule([&](long long) { recorder.record("far"); }, std::chrono::hours(1), milliseconds(0));
    auto soon = backend->schedule([&](long long) { recorder.record("soon"); }, milliseconds(5), milliseconds(0));
    ASSERT_TRUE(recorder.waitFor(1));
    EXPECT_EQ(recorder.events(), (std::vector<std::string>{"soon"}));
}

TEST_F(ThreadedTimerBackendConcurrency, PeriodicJobReleasesItsOwnLastHandleUnderItsOwnLock) {
    // Like a sweep that ends itself when idle: the job drops its handle while it
    // holds the mutex that also guards the handle's arming.
    struct Job {
        std::mutex mutex;
        common::TimerHandle handle;
        int runs = 0;
    };
    auto job = std::make_shared<Job>();
    Recorder recorder;
    {
        std::lock_guard<std::mutex> guard(job->mutex);
        job->handle = backend->schedule(
            [raw = job.get(), &recorder](long long) {
                std::lock_guard<std::mutex> guard(raw->mutex);
                if (++raw->runs == 3) {
                    raw->handle = nullptr;
                    recorder.record("ended");
                }
            },
            milliseconds(1), milliseconds(1));
    }
    ASSERT_TRUE(recorder.waitFor(1));
    drain(milliseconds(10));
    std::lock_guard<std::mutex> guard(job->mutex);
    EXPECT_EQ(job->runs, 3);
    EXPECT_EQ(job->handle, nullptr);
}

TEST_F(ThreadedTimerBackendConcurrency, ReleaseWaitsForTheRunningCallback) {
    Recorder entered;
    std::mutex gateMutex;
    std::condition_variable gateCondition;
    bool gateOpen = false;
    std::atomic<bool> releaseReturned{false};
    std::atomic<bool> releaseReturnedDuringCallback{false};
    auto handle = backend->schedule(
        [&](long long) {
            entered.record("entered");
            std::unique_lock<std::mutex> lock(gateMutex);
            gateCondition.wait(lock, [&] { return gateOpen; });
            releaseReturnedDuringCallback = releaseReturned.load();
        },
        milliseconds(0), milliseconds(0));
    ASSERT_TRUE(entered.waitFor(1));
    std::thread releaser([&] {
        handle = nullptr;
        releaseReturned = true;
    });
    // Gives a release that fails to wait the time to return early, where the callback sees it.
    std::this_thread::sleep_for(milliseconds(20));
    {
        std::lock_guard<std::mutex> guard(gateMutex);
        gateOpen = true;
    }
    gateCondition.notify_all();
    releaser.join();
    EXPECT_FALSE(releaseReturnedDuringCallback);
}

TEST_F(ThreadedTimerBackendConcurrency, StopFromACallbackIsRefusedAndRestartRunsWaitingTimers) {
    Recorder recorder;
    auto refused = backend->schedule(
        [&](long long) {
            try {
                backend->stop();
                recorder.record("stopped");
            } catch (const std::logic_error&) {
                recorder.record("refused");
            }
        },
        milliseconds(0), milliseconds(0));
    ASSERT_TRUE(recorder.waitFor(1));
    backend->stop();
    EXPECT_FALSE(backend->isRunning());
    auto waiting = backend->schedule([&](long long) { recorder.record("after restart"); }, milliseconds(0),
                                     milliseconds(0));
    backend->start();
    ASSERT_TRUE(recorder.waitFor(2));
    EXPECT_EQ(recorder.events(), (std::vector<std::string>{"refused", "after restart"}));
}

TEST_F(ThreadedTimerBackendConcurrency, ThrowingCallbackDoesNotEndTheTimerThread) {
    Recorder recorder;
    auto failing = backend->schedule([](long long) { throw std::runtime_error("broken callback"); }, milliseconds(0),
                                     milliseconds(0));
    auto following = backend->schedule([&](long long) { recorder.record("still running"); }, milliseconds(1),
                                       milliseconds(0));
    EXPECT_TRUE(recorder.waitFor(1));
}

TEST_F(ThreadedTimerBackendConcurrency, NoCallbackStartsAfterItsReleaseReturnedOnAnyThread) {
    std::atomic<int> ranAfterRelease{0};
    std::atomic<int> ran{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&, thread] {
            for (int round = 0; round < 300; ++round) {
                auto released = std::make_shared<std::atomic<bool>>(false);
                auto handle = backend->schedule(
                    [&, released](long long) {
                        ++ran;
                        if (released->load()) {
                            ++ranAfterRelease;
                        }
                    },
                    milliseconds(round % 3), milliseconds(thread % 2));
                if (round % 5 == 0) {
                    std::this_thread::sleep_for(std::chrono::microseconds(500));
                }
                handle = nullptr;
                released->store(true);
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    drain(milliseconds(5));
    EXPECT_EQ(ranAfterRelease.load(), 0);
    EXPECT_GT(ran.load(), 0) << "no callback raced with its release";
}

}  // namespace
}  // namespace korvane::host
