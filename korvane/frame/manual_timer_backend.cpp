#include "korvane/frame/manual_timer_backend.h"

#include <stdexcept>

#include "korvane/frame/timer_queue.h"

namespace korvane::common {

namespace {

using Duration = TimerQueue::Duration;

long long millisecondsOf(Duration time) { return std::chrono::duration_cast<std::chrono::milliseconds>(time).count(); }

}  // namespace

ManualTimerBackend::ManualTimerBackend(long long startTick)
    : timers(std::make_shared<TimerQueue>()),
      elapsedMilliseconds(std::make_shared<std::atomic<long long>>(startTick * tickMilliseconds)) {
    // Nothing waits on this clock: the test's next advance finds what became due.
    timers->setRearmHooks(
        [elapsed = elapsedMilliseconds] { return Duration(std::chrono::milliseconds(elapsed->load())); }, nullptr);
}

ManualTimerBackend::~ManualTimerBackend() = default;

long long ManualTimerBackend::currentTick() { return elapsedMilliseconds->load() / tickMilliseconds; }

TimerHandle ManualTimerBackend::schedule(TimerCallback callback, std::chrono::milliseconds firstDelay,
                                         std::chrono::milliseconds period) {
    return timers->arm(std::move(callback), now(), firstDelay, period);
}

std::unique_ptr<RearmableTimer> ManualTimerBackend::makeRearmableTimer(TimerCallback callback) {
    return timers->makeRearmable(std::move(callback));
}

void ManualTimerBackend::advance(std::chrono::milliseconds duration) {
    if (duration < std::chrono::milliseconds::zero()) {
        throw std::invalid_argument("ManualTimerBackend cannot move time backwards.");
    }
    const Duration target = now() + duration;
    // Each step stops at the next due time, so callbacks see the clock at their own
    // due time and may arm timers that fall due later in the same window.
    for (std::optional<Duration> next = timers->nextDue(); next && *next <= target; next = timers->nextDue()) {
        doMoveForwardTo(millisecondsOf(*next));
        timers->runDue(now());
    }
    doMoveForwardTo(millisecondsOf(target));
}

void ManualTimerBackend::doMoveForwardTo(long long milliseconds) {
    long long seen = elapsedMilliseconds->load();
    while (seen < milliseconds && !elapsedMilliseconds->compare_exchange_weak(seen, milliseconds)) {
    }
}

void ManualTimerBackend::advanceTicks(long long ticks) { advance(std::chrono::milliseconds(ticks * tickMilliseconds)); }

void ManualTimerBackend::setTick(long long tick) { elapsedMilliseconds->store(tick * tickMilliseconds); }

std::chrono::milliseconds ManualTimerBackend::now() const {
    return std::chrono::milliseconds(elapsedMilliseconds->load());
}

std::size_t ManualTimerBackend::armedCount() const { return timers->armedCount(); }

}  // namespace korvane::common
