#include "korvane/host/threaded_timer_backend.h"

#include <optional>
#include <stdexcept>

namespace korvane::host {

struct ThreadedTimerBackend::TimerThreadState {
    std::shared_ptr<common::TimerQueue> queue = std::make_shared<common::TimerQueue>();
    std::mutex mutex;
    std::condition_variable wake;
    // Bumped when a timer becomes the first due, so that the sleeping thread re-reads
    // the due time even if the bump came between its read and its wait.
    std::uint64_t wakeups = 0;
    bool stopRequested = false;
};

ThreadedTimerBackend::ThreadedTimerBackend() : state(std::make_shared<TimerThreadState>()) {
    // Weakly, as a handle holds its queue: the queue and its callbacks go with the backend.
    state->queue->setRearmHooks(&common::TimerQueue::steadyNow, [weakState = std::weak_ptr<TimerThreadState>(state)] {
        if (auto held = weakState.lock()) {
            doWakeTimerThread(*held);
        }
    });
}

ThreadedTimerBackend::~ThreadedTimerBackend() {
    std::lock_guard<std::mutex> threadGuard(threadMutex);
    if (!thread.joinable()) {
        return;
    }
    {
        std::lock_guard<std::mutex> guard(state->mutex);
        state->stopRequested = true;
    }
    state->wake.notify_all();
    if (thread.get_id() == std::this_thread::get_id()) {
        // The last reference went with a callback on the timer thread: the thread holds
        // its own share of the state and leaves once that callback has returned.
        thread.detach();
    } else {
        thread.join();
    }
}

void ThreadedTimerBackend::start() {
    std::lock_guard<std::mutex> threadGuard(threadMutex);
    if (thread.joinable()) {
        return;
    }
    {
        std::lock_guard<std::mutex> guard(state->mutex);
        state->stopRequested = false;
    }
    thread = std::thread(&ThreadedTimerBackend::doRunTimerThread, state);
}

void ThreadedTimerBackend::stop() {
    std::thread stopping;
    {
        std::lock_guard<std::mutex> threadGuard(threadMutex);
        if (!thread.joinable()) {
            return;
        }
        if (thread.get_id() == std::this_thread::get_id()) {
            throw std::logic_error("ThreadedTimerBackend::stop called from its own timer thread.");
        }
        {
            std::lock_guard<std::mutex> guard(state->mutex);
            state->stopRequested = true;
        }
        stopping = std::move(thread);
    }
    state->wake.notify_all();
    stopping.join();
}

bool ThreadedTimerBackend::isRunning() const {
    std::lock_guard<std::mutex> threadGuard(threadMutex);
    return thread.joinable();
}

long long ThreadedTimerBackend::currentTick() {
    return common::TimerQueue::steadyNow() / std::chrono::milliseconds(common::tickMilliseconds);
}

common::TimerHandle ThreadedTimerBackend::schedule(common::TimerCallback callback,
                                                   std::chrono::milliseconds firstDelay,
                                                   std::chrono::milliseconds period) {
    bool becameEarliest = false;
    common::TimerHandle handle =
        state->queue->arm(std::move(callback), common::TimerQueue::steadyNow(), firstDelay, period, &becameEarliest);
    if (becameEarliest) {
        doWakeTimerThread(*state);
    }
    return handle;
}

std::unique_ptr<common::RearmableTimer> ThreadedTimerBackend::makeRearmableTimer(common::TimerCallback callback) {
    return state->queue->makeRearmable(std::move(callback));
}

void ThreadedTimerBackend::doRunTimerThread(std::shared_ptr<TimerThreadState> state) {
    std::unique_lock<std::mutex> lock(state->mutex);
    while (!state->stopRequested) {
        const std::uint64_t seenWakeups = state->wakeups;
        const std::optional<Duration> next = state->queue->nextDue();
        const Duration now = common::TimerQueue::steadyNow();
        if (next && *next <= now) {
            lock.unlock();
            state->queue->runDueReportingFailures(now);
            lock.lock();
            continue;
        }
        auto woken = [&state, seenWakeups] { return state->stopRequested || state->wakeups != seenWakeups; };
        if (next) {
            const std::chrono::steady_clock::time_point due(
                std::chrono::duration_cast<std::chrono::steady_clock::duration>(*next));
            state->wake.wait_until(lock, due, woken);
        } else {
            state->wake.wait(lock, woken);
        }
    }
}

void ThreadedTimerBackend::doWakeTimerThread(TimerThreadState& state) {
    {
        std::lock_guard<std::mutex> guard(state.mutex);
        ++state.wakeups;
    }
    state.wake.notify_one();
}

}  // namespace korvane::host
