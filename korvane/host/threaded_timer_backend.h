#pragma once

// The host's clock and timer service: std::chrono::steady_clock, and one timer
// thread that sleeps until the next due time and runs every due callback.
//
// Threading: schedule(), makeRearmableTimer(), currentTick() and a rearmable timer's
// arm() may be called from any thread, including
// from a callback. start() and stop() are for the host's own thread and must not be
// called from a callback: stop() joins the timer thread. The thread's state (the
// queue, the lock, the wake-up counter and the stop flag) lives in a shared
// TimerThreadState that the thread holds too, so that the backend may be destroyed
// on its own timer thread (a callback that held the last reference): the destructor
// then asks the thread to stop and detaches it, and the thread leaves once the
// running callback returns. `state->mutex` guards the stop flag and the wake-up
// counter; the queue has its own lock, always taken after it and never held while
// a callback runs. Timers armed while the service is stopped run once it is
// started.

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>

#include "korvane/frame/timer_queue.h"
#include "korvane/frame/timers.h"

namespace korvane::host {

class ThreadedTimerBackend : public common::TimerBackend {
public:
    ThreadedTimerBackend();
    // Stops and joins the timer thread; on the timer thread itself, stops and detaches it.
    ~ThreadedTimerBackend() override;

    // Starts the timer thread; does nothing when it is running.
    void start();
    // Stops and joins the timer thread; armed timers stay armed. Throws
    // std::logic_error when called on the timer thread itself.
    void stop();
    bool isRunning() const;

    long long currentTick() override;
    common::TimerHandle schedule(common::TimerCallback callback, std::chrono::milliseconds firstDelay,
                                 std::chrono::milliseconds period) override;
    std::unique_ptr<common::RearmableTimer> makeRearmableTimer(common::TimerCallback callback) override;

private:
    using Duration = common::TimerQueue::Duration;
    struct TimerThreadState;

    // The body of the timer thread; it owns a share of `state` for its whole run.
    static void doRunTimerThread(std::shared_ptr<TimerThreadState> state);
    static void doWakeTimerThread(TimerThreadState& state);

    std::shared_ptr<TimerThreadState> state;
    // Guards `thread` against concurrent start() and stop().
    mutable std::mutex threadMutex;
    std::thread thread;
};

}  // namespace korvane::host
