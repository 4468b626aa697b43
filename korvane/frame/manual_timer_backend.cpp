#include "korvane/frame/manual_timer_backend.h"

#include <stdexcept>

#include "korvane/frame/timer_queue.h"

namespace korvane::common {

namespace {

using Duration = TimerQueue::Duration;

long long millisecondsOf(Duration time) { return std::chrono::duration_cast<std::chrono::milliseconds>(time).count(); }

}  // namespace

ManualTimerBackend::ManualTimerBackend(long long startTick)
    : queue_(std::make_shared<TimerQueue>()), nowMilliseconds_(startTick * tickMilliseconds) {}

ManualTimerBackend::~ManualTimerBackend() = default;

long long ManualTimerBackend::currentTick() { return nowMilliseconds_.load() / tickMilliseconds; }

TimerHandle ManualTimerBackend::schedule(TimerCallback callback, std::chrono::milliseconds firstDelay,
                                         std::chrono::milliseconds period) {
    return queue_->arm(std::move(callback), now() + firstDelay, period);
}

void ManualTimerBackend::advance(std::chrono::milliseconds duration) {
    if (duration < std::chrono::milliseconds::zero()) {
        throw std::invalid_argument("ManualTimerBackend cannot move time backwards.");
    }
    const Duration target = now() + duration;
    // Each step stops at the next due time, so callbacks see the clock at their own
    // due time and may arm timers that fall due later in the same window.
    for (std::optional<Duration> next = queue_->nextDue(); next && *next <= target; next = queue_->nextDue()) {
        doMoveForwardTo(millisecondsOf(*next));
        queue_->runDue(now());
    }
    doMoveForwardTo(millisecondsOf(target));
}

void ManualTimerBackend::doMoveForwardTo(long long milliseconds) {
    long long seen = nowMilliseconds_.load();
    while (seen < milliseconds && !nowMilliseconds_.compare_exchange_weak(seen, milliseconds)) {
    }
}

void ManualTimerBackend::advanceTicks(long long ticks) { advance(std::chrono::milliseconds(ticks * tickMilliseconds)); }

void ManualTimerBackend::setTick(long long tick) { nowMilliseconds_.store(tick * tickMilliseconds); }

std::chrono::milliseconds ManualTimerBackend::now() const {
    return std::chrono::milliseconds(nowMilliseconds_.load());
}

std::size_t ManualTimerBackend::armedCount() const { return queue_->armedCount(); }

}  // namespace korvane::common
