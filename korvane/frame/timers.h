#pragma once

// Clock and timers. The library has no thread of its own: these functions go to a
// clock-and-timer backend that the host installs (the host's threaded one, or
// ManualTimerBackend in tests). Using them with no backend installed throws
// std::runtime_error.
//
// A timer handle is a shared pointer to an opaque object; releasing the last
// reference cancels the timer. Once that release returns the callback will not
// start; if the callback is running on another thread the release waits for it;
// a release from inside the callback itself neither waits nor deadlocks.
// Callbacks run on the backend's threads (a timer thread of its own, or the I/O
// threads of the loop it is attached to), one at a time, never under a lock of the
// caller.

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "korvane/export.h"

namespace korvane::common {

// Milliseconds in one tick, the time unit of getCurrentTick, delay and periodic.
constexpr long long tickMilliseconds = 100;

class KORVANE_EXPORT Timer {
public:
    Timer();
    virtual ~Timer();
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;
};

using TimerHandle = std::shared_ptr<Timer>;
// The argument is the current tick.
using TimerCallback = std::function<void(long long)>;

// A one-shot timer that keeps its callback and is armed over and over, for a timer armed
// many times a second (a session's batch timer): an arming makes nothing new. Arming an
// armed timer moves it to the new time; arming it while its callback runs arms it again
// for after that run. arm() may be called from any thread, from inside the callback, and
// under a lock that the callback takes. Destroying the timer releases it as letting go
// of the last reference to a TimerHandle does: once the destructor returns the callback
// will not start, if it runs on another thread the destructor waits for it, and from
// inside the callback the destructor neither waits nor deadlocks. The timer stays with
// the backend that made it.
class KORVANE_EXPORT RearmableTimer {
public:
    RearmableTimer();
    virtual ~RearmableTimer();
    RearmableTimer(const RearmableTimer&) = delete;
    RearmableTimer& operator=(const RearmableTimer&) = delete;

    // Runs the callback once, `delay` from now, unless it is armed again before.
    virtual void arm(std::chrono::milliseconds delay) = 0;
    // Whether an arming waits to run; from inside the callback, whether the timer was armed
    // again since this run began.
    virtual bool isArmed() const = 0;
};

class KORVANE_EXPORT TimerBackend {
public:
    TimerBackend();
    virtual ~TimerBackend();

    // Monotonic time in ticks.
    virtual long long currentTick() = 0;
    // Runs `callback` after `firstDelay`, and then every `period` unless `period` is zero.
    virtual TimerHandle schedule(TimerCallback callback, std::chrono::milliseconds firstDelay,
                                 std::chrono::milliseconds period) = 0;
    // A timer of this backend, unarmed. A backend that keeps its timers in a TimerQueue
    // makes it with TimerQueue::makeRearmable.
    virtual std::unique_ptr<RearmableTimer> makeRearmableTimer(TimerCallback callback) = 0;
};

// Installs the process-wide backend; null uninstalls. Returns the previous one, once no
// call of the free functions below is still inside it.
KORVANE_EXPORT std::shared_ptr<TimerBackend> installTimerBackend(std::shared_ptr<TimerBackend> backend);
// The installed backend; throws std::runtime_error when there is none.
KORVANE_EXPORT std::shared_ptr<TimerBackend> timerBackend();

KORVANE_EXPORT long long getCurrentTick();
// `ticks` as a wait, a century at most: a client's advice may ask for a hold of up to 2^63
// milliseconds, and a wait that long is as good as never.
KORVANE_EXPORT std::chrono::milliseconds durationOfTicks(long long ticks);
KORVANE_EXPORT TimerHandle delay(TimerCallback callback, long long ticks);
KORVANE_EXPORT TimerHandle periodic(TimerCallback callback, long long ticks);
KORVANE_EXPORT TimerHandle shortMsDelay(TimerCallback callback, unsigned char milliseconds);
// A rearmable timer of the installed backend.
KORVANE_EXPORT std::unique_ptr<RearmableTimer> rearmableTimer(TimerCallback callback);

}  // namespace korvane::common
