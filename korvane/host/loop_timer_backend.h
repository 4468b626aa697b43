#pragma once

// The host's clock and timers run by the I/O threads of the server's loops instead of a
// thread of their own: a callback that answers a held connect runs on the thread that
// writes the answer, with no hand-over between threads on the way. Each attached loop has
// a queue of its own and one steady_timer that waits for that queue's first due time; the
// loop's thread runs every due callback of it and arms the timer again for the next.
// A timer armed on a thread that runs a loop (inside a LoopScope) joins that loop's queue,
// so a connection's timers run on its own thread; one armed on any other thread joins the
// first loop's.
//
// Timers may be armed and released at any time from any thread; they run only while
// the backend is attached to loops that run. The HTTP server attaches it when its
// I/O threads start and detaches it before it lets them go; timers armed meanwhile
// stay armed and run once it is attached again. A callback must not block: it holds up
// the connections of the I/O thread it runs on.
//
// Threading: attach() and detach() belong to the loops' owner. Each loop's state (its
// queue, its timer, the flags) lives in a shared LoopState that the pending wait holds
// too, so that the backend may go while a wait is pending. `state->mutex` guards the
// loop's timer and the flags; the queue has its own lock, always taken after it or
// alone, and never held while a callback runs. `statesMutex` guards `moreStates`; the
// first state never changes.

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

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

    struct LoopState;

    // Marks the calling thread, for the scope's life, as the one that runs the `index`th
    // loop of the last attach(): timers armed on it join that loop's queue. Made by the
    // thread itself, after attach(), around its run of the loop.
    class LoopScope {
    public:
        LoopScope(LoopTimerBackend& backend, std::size_t index);
        ~LoopScope();
        LoopScope(const LoopScope&) = delete;
        LoopScope& operator=(const LoopScope&) = delete;

    private:
        std::shared_ptr<LoopState> state;
    };

    // Runs the due timers on `loops` from now on, each loop those of its own queue. A queue
    // beyond the number of loops (a backend attached to more loops before) runs on the
    // loop of its index modulo their number. Every loop must outlive the next detach().
    void attach(const std::vector<boost::asio::io_context*>& loops);
    // Stops running timers on the loops and lets go of them; armed timers stay armed. A
    // callback already running on an I/O thread finishes there.
    void detach();

    long long currentTick() override;
    common::TimerHandle schedule(common::TimerCallback callback, std::chrono::milliseconds firstDelay,
                                 std::chrono::milliseconds period) override;
    std::unique_ptr<common::RearmableTimer> makeRearmableTimer(common::TimerCallback callback) override;

private:
    // The queue of the loop that the calling thread runs, or the first loop's.
    LoopState& stateForThisThread() const;
    // Entered with `statesMutex` held: the state of the `index`th loop.
    const std::shared_ptr<LoopState>& doStateAt(std::size_t index) const;

    const std::shared_ptr<LoopState> firstState;
    std::mutex statesMutex;
    std::vector<std::shared_ptr<LoopState>> moreStates;
};

}  // namespace korvane::host
