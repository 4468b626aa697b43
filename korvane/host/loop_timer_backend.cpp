#include "korvane/host/loop_timer_backend.h"

#include <mutex>
#include <optional>

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include "korvane/frame/timer_queue.h"

namespace korvane::host {

namespace {

using Duration = common::TimerQueue::Duration;

std::chrono::steady_clock::time_point timePointOf(Duration since) {
    return std::chrono::steady_clock::time_point(std::chrono::duration_cast<std::chrono::steady_clock::duration>(since));
}

// The backend whose LoopScope the calling thread is in, and that scope's loop state.
thread_local const LoopTimerBackend* scopeBackend = nullptr;
thread_local LoopTimerBackend::LoopState* scopeState = nullptr;

}  // namespace

struct LoopTimerBackend::LoopState : std::enable_shared_from_this<LoopState> {
    // A state whose rearmable timers shorten its loop's wait. Weakly, as a handle holds
    // its queue: the queue and its callbacks go with the backend.
    static std::shared_ptr<LoopState> make() {
        auto state = std::make_shared<LoopState>();
        state->queue->setRearmHooks(&common::TimerQueue::steadyNow, [weakState = state->weak_from_this()] {
            if (auto held = weakState.lock()) {
                std::lock_guard<std::mutex> guard(held->mutex);
                held->doArm();
            }
        });
        return state;
    }

    const std::shared_ptr<common::TimerQueue> queue = std::make_shared<common::TimerQueue>();
    std::mutex mutex;
    // The loop's timer while attached, waiting for `waitingFor`.
    std::optional<boost::asio::steady_timer> loopTimer;
    std::optional<Duration> waitingFor;
    // An I/O thread is running due callbacks; it arms the loop's timer when done.
    bool running = false;

    // Entered with `mutex` held: makes the loop's timer wait for the first due time,
    // unless it already waits for that or callbacks are running.
    void doArm() {
        if (!loopTimer || running) {
            return;
        }
        const std::optional<Duration> next = queue->nextDue();
        if (next == waitingFor) {
            return;
        }
        waitingFor = next;
        if (!next) {
            loopTimer->cancel();
            return;
        }
        // Setting the expiry cancels the wait under way; that wait's completion does nothing.
        loopTimer->expires_at(timePointOf(*next));
        loopTimer->async_wait([self = shared_from_this()](const boost::system::error_code& error) {
            if (!error) {
                self->onDue();
            }
        });
    }

    void onDue() {
        {
            std::lock_guard<std::mutex> guard(mutex);
            if (!loopTimer || running) {
                return;
            }
            running = true;
            waitingFor.reset();
        }
        queue->runDueReportingFailures(common::TimerQueue::steadyNow());
        std::lock_guard<std::mutex> guard(mutex);
        running = false;
        doArm();
    }
};

LoopTimerBackend::LoopScope::LoopScope(LoopTimerBackend& backend, std::size_t index) {
    {
        std::lock_guard<std::mutex> guard(backend.statesMutex);
        state = backend.doStateAt(index);
    }
    scopeBackend = &backend;
    scopeState = state.get();
}

LoopTimerBackend::LoopScope::~LoopScope() {
    scopeBackend = nullptr;
    scopeState = nullptr;
}

LoopTimerBackend::LoopTimerBackend() : firstState(LoopState::make()) {}

LoopTimerBackend::~LoopTimerBackend() = default;

void LoopTimerBackend::attach(const std::vector<boost::asio::io_context*>& loops) {
    std::lock_guard<std::mutex> statesGuard(statesMutex);
    while (moreStates.size() + 1 < loops.size()) {
        moreStates.push_back(LoopState::make());
    }
    for (std::size_t index = 0; index <= moreStates.size(); ++index) {
        LoopState& state = *doStateAt(index);
        std::lock_guard<std::mutex> guard(state.mutex);
        state.loopTimer.emplace(*loops[index % loops.size()]);
        state.waitingFor.reset();
        state.doArm();
    }
}

void LoopTimerBackend::detach() {
    std::lock_guard<std::mutex> statesGuard(statesMutex);
    for (std::size_t index = 0; index <= moreStates.size(); ++index) {
        LoopState& state = *doStateAt(index);
        std::lock_guard<std::mutex> guard(state.mutex);
        // Destroying the timer cancels its wait, whose completion then does nothing.
        state.loopTimer.reset();
        state.waitingFor.reset();
    }
}

const std::shared_ptr<LoopTimerBackend::LoopState>& LoopTimerBackend::doStateAt(std::size_t index) const {
    return index == 0 ? firstState : moreStates.at(index - 1);
}

LoopTimerBackend::LoopState& LoopTimerBackend::stateForThisThread() const {
    return scopeBackend == this ? *scopeState : *firstState;
}

long long LoopTimerBackend::currentTick() {
    return common::TimerQueue::steadyNow() / std::chrono::milliseconds(common::tickMilliseconds);
}

common::TimerHandle LoopTimerBackend::schedule(common::TimerCallback callback, std::chrono::milliseconds firstDelay,
                                               std::chrono::milliseconds period) {
    LoopState& state = stateForThisThread();
    bool becameEarliest = false;
    common::TimerHandle handle =
        state.queue->arm(std::move(callback), common::TimerQueue::steadyNow(), firstDelay, period, &becameEarliest);
    if (becameEarliest) {
        std::lock_guard<std::mutex> guard(state.mutex);
        state.doArm();
    }
    return handle;
}

std::unique_ptr<common::RearmableTimer> LoopTimerBackend::makeRearmableTimer(common::TimerCallback callback) {
    return stateForThisThread().queue->makeRearmable(std::move(callback));
}

}  // namespace korvane::host
