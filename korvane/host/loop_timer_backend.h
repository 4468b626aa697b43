#pragma once

// The host's clock and timers run by the I/O threads of an io_context instead of a
// thread of their own: a callback that answers a held connect runs on the thread that
// writes the answer, with no hand-over between threads on the way. One steady_timer
// on the loop waits for the first due time; whichever I/O thread it completes on runs
// every due callback, one thread at a time, and arms it again for the next.
//
// Timers may be armed and released at any time from any thread; they run only while
// the backend is attached to a loop that runs. The HTTP server attaches it when its
// I/O threads start and detaches it before it lets them go; timers armed meanwhile
// stay armed and run once it is attached again. A callback must not block: it holds up
// the connections of the I/O thread it runs on.
//
// Threading: attach() and detach() belong to the loop's owner. The state (the timer
// queue, the loop's timer, the flags) lives in a shared LoopState that the pending
// wait holds too, so that the backend may go while a wait is pending. `state->mutex`
// guards the loop's timer and the flags; the timer queue has its own lock, always
// taken after it or alone, and never held while a callback runs.

#include <chrono>
#include <memory>

#include "korvane/frame/timers.h"

namespace boost::asio {
class io_context;
}

namespace korvane::host {

class LoopTimerBackend : public common::TimerBackend {
public:
    LoopTimerBackend();
    ~LoopTimerBackend() override;
    LoopTimerBackend(const LoopTimerBackend&) = delete;
    LoopTimerBackend& operator=(const LoopTimerBackend&) = delete;

    // Runs the due timers on `loop` from now on. `loop` must outlive the next detach().
    void attach(boost::asio::io_context& loop);
    // Stops running timers on the loop and lets go of it; armed timers stay armed. A
    // callback already running on an I/O thread finishes there.
    void detach();

    long long currentTick() override;
    common::TimerHandle schedule(common::TimerCallback callback, std::chrono::milliseconds firstDelay,
                                 std::chrono::milliseconds period) override;
    std::unique_ptr<common::RearmableTimer> makeRearmableTimer(common::TimerCallback callback) override;

private:
    struct LoopState;
    std::shared_ptr<LoopState> state;
};

}  // namespace korvane::host
