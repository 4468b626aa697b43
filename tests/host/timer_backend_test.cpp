#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <future>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include "korvane/frame/manual_timer_backend.h"
#include "korvane/host/loop_timer_backend.h"
#include "korvane/host/threaded_timer_backend.h"
#include "support/test_helpers.h"

namespace korvane::host {
namespace {

using namespace std::chrono_literals;
using common::ManualTimerBackend;
using common::TimerHandle;
using Names = std::vector<std::string>;
using Ticks = std::vector<long long>;

// The loop backend attached to two loops, each run by a thread of its own inside its scope, as the HTTP server
// runs them.
class LoopDrivenTimers : public LoopTimerBackend {
public:
    ~LoopDrivenTimers() override { stop(); }
    void start() {
        attach({&loops[0], &loops[1]});
        for (std::size_t index = 0; index < 2; ++index) {
            work[index].emplace(loops[index].get_executor());
            threads[index] = std::thread([this, index] {
                LoopScope scope(*this, index);
                loops[index].run();
            });
        }
    }
    // The threads leave their loops only if nothing of the backend is left waiting on them.
    void stop() {
        detach();
        for (std::size_t index = 0; index < 2; ++index) {
            work[index].reset();
            if (threads[index].joinable()) {
                threads[index].join();
            }
            loops[index].restart();
        }
    }

    boost::asio::io_context loops[2];
    std::thread threads[2];

private:
    std::optional<boost::asio::executor_work_guard<boost::asio::io_context::executor_type>> work[2];
};

// Drives any backend and collects what its callbacks note. The generous wait guards against a hang, it is
// never a timing check.
template <class Backend>
struct TimerBackendTest : ::testing::Test {
    static constexpr bool kManual = std::is_same_v<Backend, ManualTimerBackend>;
    void SetUp() override {
        if constexpr (!kManual) {
            backend->start();
        }
    }

    void note(std::string event) {
        std::lock_guard<std::mutex> guard(mutex);
        events.push_back(std::move(event));
        reported.notify_all();
    }
    // What was noted once there are `count` notes, or when the wait gave up.
    Names waitFor(std::size_t count) {
        std::unique_lock<std::mutex> lock(mutex);
        reported.wait_for(lock, 10s, [&] { return events.size() >= count; });
        return events;
    }
    TimerHandle at(std::chrono::milliseconds delay, std::string event) {
        return backend->schedule([this, event](long long) { note(event); }, delay, 0ms);
    }
    // What was noted once `window` has passed and everything due within it ran.
    Names pass(std::chrono::milliseconds window) {
        auto marker = at(window, "passed");
        if constexpr (kManual) {
            backend->advance(window);
        }
        std::unique_lock<std::mutex> lock(mutex);
        reported.wait_for(lock, 10s, [&] { return !events.empty() && events.back() == "passed"; });
        events.pop_back();
        return events;
    }

    std::mutex mutex;
    std::condition_variable reported;
    Names events;
    std::shared_ptr<Backend> backend = std::make_shared<Backend>();
};
using Backends = ::testing::Types<ManualTimerBackend, ThreadedTimerBackend, LoopDrivenTimers>;
TYPED_TEST_SUITE(TimerBackendTest, Backends);

TYPED_TEST(TimerBackendTest, RunsTimersInDueOrderNothingBeforeItsTimeAndNothingReleased) {
    std::vector<TimerHandle> handles;
    for (const auto& [name, delay] : std::vector<std::pair<std::string, std::chrono::milliseconds>>{
             {"c", 30ms}, {"a", 5ms}, {"d", 30ms}, {"released", 20ms}, {"b", 15ms}, {"late", 1h}}) {
        handles.push_back(this->at(delay, name));
    }
    // Released well before they are due, even when this thread is held up for a while on a loaded machine.
    handles[3] = nullptr;
    auto releasedPeriodic = this->backend->schedule([this](long long) { this->note("periodic"); }, 20ms, 1ms);
    releasedPeriodic = nullptr;
    EXPECT_EQ(this->pass(40ms), (Names{"a", "b", "c", "d"}));
    EXPECT_NO_THROW(handles.clear()) << "a release after the run is harmless";
}

TYPED_TEST(TimerBackendTest, TimerReleasesItsOwnLastHandleFromInsideItsCallbackUnderItsOwnLock) {
    for (bool isPeriodic : {false, true}) {
        SCOPED_TRACE(isPeriodic ? "periodic" : "once");
        // Like a sweep that ends itself when idle: the job drops its handle while it holds the mutex that also
        // guards the handle's arming.
        std::mutex jobMutex;
        TimerHandle handle;
        int runs = 0;
        const int stopAfter = isPeriodic ? 3 : 1;
        auto captured = std::make_shared<int>(7);
        std::weak_ptr<int> capturedWatch = captured;
        std::unique_lock<std::mutex> arming(jobMutex);
        handle = this->backend->schedule(
            [&, captured = std::move(captured)](long long) {
                std::lock_guard<std::mutex> guard(jobMutex);
                if (++runs == stopAfter) {
                    handle = nullptr;
                }
                this->note("run " + std::to_string(runs));
            },
            2ms, isPeriodic ? 2ms : 0ms);
        arming.unlock();
        if constexpr (!TestFixture::kManual) {
            // A loaded machine may run the beats late, the last of them beside the marker below: wait for them.
            this->waitFor(stopAfter);
        }
        EXPECT_EQ(this->pass(20ms).size(), static_cast<std::size_t>(stopAfter));
        EXPECT_EQ(runs, stopAfter);
        EXPECT_TRUE(capturedWatch.expired()) << "the callback's captures outlived its timer";
        std::lock_guard<std::mutex> guard(this->mutex);
        this->events.clear();
    }
}

// A rearmable timer runs once for its last arming, whether that moved it away or closer, and again when armed
// after a run; its end releases it. The first arming of each pair is far enough off not to come due between them.
TYPED_TEST(TimerBackendTest, RearmableTimerRunsOnceForItsLastArmingAndAgainWhenArmedAfterARun) {
    auto timer = this->backend->makeRearmableTimer([this](long long) { this->note("ran"); });
    EXPECT_FALSE(timer->isArmed());
    timer->arm(50ms);
    timer->arm(1h);
    EXPECT_EQ(this->pass(80ms), Names{}) << "moved away";
    EXPECT_TRUE(timer->isArmed());
    timer->arm(2ms);
    EXPECT_EQ(this->pass(20ms), Names{"ran"}) << "moved closer";
    EXPECT_FALSE(timer->isArmed()) << "after its run";
    timer->arm(2ms);
    EXPECT_EQ(this->pass(20ms), (Names{"ran", "ran"})) << "armed after its run";
    timer->arm(50ms);
    timer.reset();
    EXPECT_EQ(this->pass(80ms), (Names{"ran", "ran"})) << "released";
}

// Like a session's batch timer: armed under the lock its callback takes, it arms itself again from inside the
// callback (where it counts as armed only once armed again), and is released there at last, which neither waits
// nor runs it again.
TYPED_TEST(TimerBackendTest, RearmableTimerArmedUnderItsCallbacksLockAndFromInsideItsCallback) {
    std::mutex jobMutex;
    std::unique_ptr<common::RearmableTimer> timer;
    int runs = 0;
    std::unique_lock<std::mutex> arming(jobMutex);
    timer = this->backend->makeRearmableTimer([&](long long) {
        std::lock_guard<std::mutex> guard(jobMutex);
        std::string armed = timer->isArmed() ? " armed" : "";
        if (++runs < 3) {
            timer->arm(2ms);
            armed += timer->isArmed() ? ", armed again" : "";
        } else {
            timer = nullptr;
        }
        this->note("run " + std::to_string(runs) + armed);
    });
    timer->arm(2ms);
    arming.unlock();
    if constexpr (!TestFixture::kManual) {
        this->waitFor(3);
    }
    EXPECT_EQ(this->pass(20ms), (Names{"run 1, armed again", "run 2, armed again", "run 3"}));
    std::lock_guard<std::mutex> guard(jobMutex);
    EXPECT_EQ(timer, nullptr);
}

TYPED_TEST(TimerBackendTest, CallbackOwningItsHandleIsFreedWithTheBackendAndHandlesOutliveIt) {
    auto captured = std::make_shared<int>(1);
    std::weak_ptr<int> capturedWatch = captured;
    auto holder = std::make_shared<TimerHandle>();
    *holder = this->backend->schedule([holder, captured](long long) {}, 1h, 1h);
    holder.reset();
    captured.reset();
    EXPECT_FALSE(capturedWatch.expired());
    auto outliving = this->at(1h, "never");
    auto outlivingRearmable = this->backend->makeRearmableTimer([this](long long) { this->note("never"); });
    outlivingRearmable->arm(1h);
    this->backend.reset();
    EXPECT_TRUE(capturedWatch.expired());
    EXPECT_NO_THROW(outliving.reset());
    EXPECT_NO_THROW(outlivingRearmable->arm(0ms));
    EXPECT_NO_THROW(outlivingRearmable.reset());
}

struct ManualTimerTest : TimerBackendTest<ManualTimerBackend> {
    void SetUp() override { common::installTimerBackend(backend); }
    void TearDown() override { common::installTimerBackend(nullptr); }
};

// Timers a callback arms fire within the same advance when due in it; a callback may move the clock itself.
TEST_F(ManualTimerTest, CallbacksArmTimersAndMoveTheClockWithinAnAdvanceWithoutDeadlock) {
    TimerHandle inner, beyond, passed = at(60ms, "passed by the nested advance"), later = at(300ms, "after both");
    auto outer = backend->schedule(
        [&](long long) {
            note("outer");
            inner = at(30ms, "inner");
            beyond = at(80ms, "beyond");
            at(0ms, "dropped at once");
        },
        10ms, 0ms);
    auto mover = backend->schedule(
        [&](long long) {
            note("mover");
            backend->advance(100ms);
            note("nested advance returned at " + std::to_string(backend->now().count()));
        },
        50ms, 0ms);
    backend->advance(50ms);
    EXPECT_EQ(waitFor(6), (Names{"outer", "inner", "mover", "passed by the nested advance", "beyond",
                                 "nested advance returned at 150"}));
    EXPECT_EQ(backend->now(), 150ms) << "the outer advance never moves the clock back";
    EXPECT_EQ(pass(200ms).back(), "after both");
}

// Rearmable timers moved about at random among plain ones, into the lane, out of it and within it, and some of
// each released from random places in the queue once all are armed: each of the rest runs once, at its last
// arming's time, in due order, equal times in the order they were armed.
TEST_F(ManualTimerTest, TimersMovedAboutAndReleasedAtRandomRunOnceAtTheirLastArmingInDueOrder) {
    const auto noteWithTime = [this](const std::string& name) {
        return [this, name](long long) { note(name + " at " + std::to_string(backend->now().count())); };
    };
    std::mt19937 random(7);
    std::vector<std::unique_ptr<common::RearmableTimer>> rearmables;
    std::vector<std::pair<long long, int>> armedAt;  // each rearmable's (due, arming order); due -1: not armed
    std::vector<TimerHandle> plain[2];  // kept, and released once all are armed
    std::map<std::pair<long long, int>, std::string> expected;  // run order: by due time, then by arming
    // Half of them rise slowly, as batch timers do, and join the lane; the others fall due no later, or beyond
    // the lane's reach (50 ms), and wait in the heap.
    for (int order = 0; order < 3000; ++order) {
        const long long rising = order / 60;
        const long long due = random() % 2 == 0 ? rising : random() % 8 == 0 ? 60 + rising : random() % (rising + 1);
        if (random() % 4 == 0) {
            const std::string name = "plain " + std::to_string(order);
            const bool released = random() % 3 == 0;
            plain[released].push_back(backend->schedule(noteWithTime(name), std::chrono::milliseconds(due), 0ms));
            if (!released) {
                expected.emplace(std::make_pair(due, order), name + " at " + std::to_string(due));
            }
            continue;
        }
        const std::size_t index = random() % 100;
        if (index >= rearmables.size()) {
            const std::string name = "rearmable " + std::to_string(rearmables.size());
            rearmables.push_back(backend->makeRearmableTimer(noteWithTime(name)));
            armedAt.emplace_back(-1, 0);
        }
        const std::size_t which = std::min(index, rearmables.size() - 1);
        expected.erase(armedAt[which]);
        armedAt[which] = {due, order};
        rearmables[which]->arm(std::chrono::milliseconds(due));
        expected.emplace(armedAt[which], "rearmable " + std::to_string(which) + " at " + std::to_string(due));
    }
    plain[1].clear();
    for (std::size_t which = 0; which < rearmables.size(); which += 3) {
        rearmables[which] = nullptr;
        expected.erase(armedAt[which]);
    }
    EXPECT_EQ(backend->armedCount(), expected.size());
    Names inOrder;
    for (const auto& timer : expected) {
        inOrder.push_back(timer.second);
    }
    EXPECT_EQ(pass(5000ms), inOrder);
    EXPECT_EQ(backend->armedCount(), 0u);
}

// A callback's exception reaches the advancing test and retires its timer; setTick runs nothing until the next
// advance, when a periodic timer that fell behind skips the missed beats; without a backend every call throws.
TEST_F(ManualTimerTest, ExceptionsSetTickAndTheMissingBackend) {
    auto failing = common::delay([](long long) { throw std::runtime_error("callback broke"); }, 1);
    Ticks ticks;
    auto delayed = common::delay([&ticks](long long tick) { ticks.push_back(tick); }, 10);
    EXPECT_THROW(backend->advanceTicks(3), std::runtime_error);
    EXPECT_EQ(backend->armedCount(), 1u);
    EXPECT_EQ(backend->now(), 100ms) << "the clock stopped at the failing timer's due time";
    auto every = common::periodic([&ticks](long long tick) { ticks.push_back(-tick); }, 4);
    backend->setTick(50);
    EXPECT_EQ(common::getCurrentTick(), 50);
    EXPECT_TRUE(ticks.empty());
    backend->advance(0ms);
    EXPECT_EQ(ticks, (Ticks{-50, 50}));
    backend->advanceTicks(4);
    EXPECT_EQ(ticks, (Ticks{-50, 50, -54}));
    EXPECT_THROW(backend->advance(-1ms), std::invalid_argument);
    EXPECT_EQ(ManualTimerBackend(7).currentTick(), 7);

    common::installTimerBackend(nullptr);
    EXPECT_THROW(common::periodic([](long long) {}, 1), std::runtime_error) << "each call asks for the backend first";
}

// The backends whose callbacks run on threads of their own, against the real clock.
template <class Backend>
using RealClockTimerConcurrency = TimerBackendTest<Backend>;
using RealClockBackends = ::testing::Types<ThreadedTimerBackend, LoopDrivenTimers>;
TYPED_TEST_SUITE(RealClockTimerConcurrency, RealClockBackends);

// The wait first heads for the hour-long timer: each earlier one has to wake it, and it must not keep the
// threads when the backend stops; a callback that throws leaves the backend running.
TYPED_TEST(RealClockTimerConcurrency, EarlierTimersWakeTheWaitAndNothingRunsWhileStopped) {
    auto far = this->at(1h, "far");
    auto refused = this->backend->schedule(
        [this](long long) {
            this->note("refused");
            throw std::runtime_error("broken callback");
        },
        0ms, 0ms);
    const long long tickBefore = this->backend->currentTick();
    auto early = this->backend->schedule(
        [&](long long tick) {
            this->note(tick >= tickBefore && tick <= this->backend->currentTick() ? "10ms" : "wrong tick");
        },
        10ms, 0ms);
    EXPECT_EQ(this->waitFor(2), (Names{"refused", "10ms"}));
    this->backend->stop();
    auto waiting = this->at(0ms, "came due while stopped");
    std::this_thread::sleep_for(10ms);
    EXPECT_EQ(this->waitFor(0), (Names{"refused", "10ms"}));
    this->backend->start();
    EXPECT_EQ(this->waitFor(3), (Names{"refused", "10ms", "came due while stopped"}));
}

// Threads arm timers and release them, some while their callbacks run, and arm one rearmable timer over and over
// under the lock its callback takes, as a session's publishers do: a release waits for a callback running on another
// thread and frees its captures, no callback starts after its release returned or overlaps another, and no arming
// waits for the callback.
TYPED_TEST(RealClockTimerConcurrency, ReleaseWaitsForItsRunningCallbackAndNoCallbackStartsAfterItOrOverlapsAnother) {
    std::mutex jobMutex;
    std::atomic<int> ran{0}, ranAfterRelease{0}, returnedEarly{0}, running{0}, overlaps{0}, capturesKept{0};
    const auto job = [&](const std::atomic<bool>& released) {
        overlaps += running++ != 0 ? 1 : 0;
        ranAfterRelease += released ? 1 : 0;
        std::this_thread::sleep_for(++ran % 2 == 0 ? 300us : 0us);  // long enough for a release to come
        returnedEarly += released ? 1 : 0;  // its release returned while it still ran
        --running;
    };
    std::atomic<bool> rearmableReleased{false};
    auto rearmable = this->backend->makeRearmableTimer([&](long long) {
        std::lock_guard<std::mutex> guard(jobMutex);
        job(rearmableReleased);
    });
    auto armAndRelease = [&](int thread) {
        for (int round = 0; round < 300; ++round) {
            auto released = std::make_shared<std::atomic<bool>>(false);
            auto handle = this->backend->schedule([&job, released](long long) { job(*released); },
                                                  std::chrono::milliseconds(round % 3), std::chrono::milliseconds(thread % 2));
            {
                std::lock_guard<std::mutex> guard(jobMutex);
                rearmable->arm(std::chrono::milliseconds(round % 2));
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(round % 3));  // about when it falls due
            handle = nullptr;
            capturesKept += released.use_count() != 1 ? 1 : 0;
            released->store(true);
        }
    };
    test_support::onThreads(4, armAndRelease);
    rearmable = nullptr;
    EXPECT_EQ(running.load(), 0) << "the rearmable timer's release returned while its callback ran";
    rearmableReleased = true;
    EXPECT_EQ(this->pass(5ms), Names{});
    EXPECT_EQ(ranAfterRelease.load(), 0);
    EXPECT_EQ(returnedEarly.load() + capturesKept.load(), 0) << "a release returned before its callback, or kept its captures";
    EXPECT_EQ(overlaps.load(), 0) << "callbacks ran on two threads at once";
    EXPECT_GT(ran.load(), 0) << "no callback raced with its release";
}

// A timer armed on a loop's thread, plain or rearmable, runs on that thread, and a rearmable one stays there when
// armed elsewhere later; one armed on any other thread runs on the first loop's. Nothing runs while detached.
using LoopTimerBackendLoops = TimerBackendTest<LoopDrivenTimers>;
TEST_F(LoopTimerBackendLoops, TimersRunOnTheLoopWhoseThreadArmedThem) {
    const auto noteLoop = [this](const std::string& name) {
        return [this, name](long long) {
            const auto self = std::this_thread::get_id();
            note(name + (self == backend->threads[0].get_id() ? " on 0" : self == backend->threads[1].get_id() ? " on 1" : ""));
        };
    };
    TimerHandle elsewhere = backend->schedule(noteLoop("elsewhere"), 1ms, 0ms), onSecond;
    std::unique_ptr<common::RearmableTimer> rearmable;
    std::promise<void> armed;
    boost::asio::post(backend->loops[1], [&] {
        onSecond = backend->schedule(noteLoop("plain"), 1ms, 0ms);
        rearmable = backend->makeRearmableTimer(noteLoop("rearmable"));
        rearmable->arm(1ms);
        armed.set_value();
    });
    armed.get_future().wait();
    Names ran = waitFor(3);
    std::sort(ran.begin(), ran.end());
    EXPECT_EQ(ran, (Names{"elsewhere on 0", "plain on 1", "rearmable on 1"}));
    backend->detach();
    rearmable->arm(0ms);
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(waitFor(0).size(), 3u) << "ran while detached";
    backend->attach({&backend->loops[0], &backend->loops[1]});
    EXPECT_EQ(waitFor(4).back(), "rearmable on 1");
    rearmable = nullptr;
}

}  // namespace
}  // namespace korvane::host
