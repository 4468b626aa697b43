#pragma once

// A clock and timer backend for tests: time stands still until the test moves it,
// and due timers run on the thread that moves it. A two-minute sweep is then a
// single advance() call, with no sleeps and no timer thread.
//
// Threading: every operation may be called from any thread, including from inside
// a callback. Due timers run on the thread that calls advance(), with no lock of the
// backend held, so a callback may arm, release and inspect timers and may itself
// move the clock: the nested advance runs what falls due in its own window, and the
// outer one then goes on to its target. advance() never moves the clock backwards.

#include "korvane/frame/timers.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>

#include "korvane/export.h"

namespace korvane::common {

class TimerQueue;

class KORVANE_EXPORT ManualTimerBackend : public TimerBackend {
public:
    // Time starts at the beginning of `startTick`.
    explicit ManualTimerBackend(long long startTick = 0);
    ~ManualTimerBackend() override;

    long long currentTick() override;
    TimerHandle schedule(TimerCallback callback, std::chrono::milliseconds firstDelay,
                         std::chrono::milliseconds period) override;
    std::unique_ptr<RearmableTimer> makeRearmableTimer(TimerCallback callback) override;

    // Moves time forward by `duration`, stopping at each due time on the way and
    // running the timers due there in due order. Timers that a callback arms and
    // that fall due within the window run too. A zero duration runs what is due now.
    void advance(std::chrono::milliseconds duration);
    // advance() by whole ticks.
    void advanceTicks(long long ticks);
    // Sets the clock to the beginning of `tick` without running anything; timers
    // that are due then run at the next advance (advance(0ms) runs them at once).
    void setTick(long long tick);
    // The current time in milliseconds since the clock's origin.
    std::chrono::milliseconds now() const;
    // Timers armed and not yet released or finished (a periodic timer stays armed).
    std::size_t armedCount() const;

private:
    // Moves the clock to `milliseconds` unless another advance already went further.
    void doMoveForwardTo(long long milliseconds);

    std::shared_ptr<TimerQueue> timers;
    // Shared with the rearmable timers, which may outlive the backend.
    const std::shared_ptr<std::atomic<long long>> elapsedMilliseconds;
};

}  // namespace korvane::common
