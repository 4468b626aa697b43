#pragma once

// The host's clock and timer service: std::chrono::steady_clock, and one timer
// thread that sleeps until the next due time and runs every due callback.
//
// Threading: schedule() and currentTick() may be called from any thread, including
// from a callback. start() and stop() are for the host's own thread and must not be
// called from a callback: stop() joins the timer thread. `mutex_` guards the thread
// state and the wake-up counter; the queue has its own lock, always taken after
// `mutex_` and never held while a callback runs. Timers armed while the service is
// stopped run once it is started.

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
    // Stops and joins the timer thread.
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

private:
    using Duration = common::TimerQueue::Duration;

    static Duration doNow();
    void doRunTimerThread();
    // Runs what is due, reporting a callback's exception on the standard error stream
    // so that one failing callback does not end the timer thread.
    void doRunDue(Duration now);
    void doWakeTimerThread();

    std::shared_ptr<common::TimerQueue> queue_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    // Bumped when a timer becomes the first due, so that the sleeping thread re-reads
    // the due time even if the bump came between its read and its wait.
    std::uint64_t wakeups_ = 0;
    bool stopRequested_ = false;
    std::thread thread_;
};

}  // namespace korvane::host
