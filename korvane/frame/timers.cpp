#include "korvane/frame/timers.h"

#include <algorithm>
#include <mutex>
#include <stdexcept>

namespace korvane::common {

namespace {

std::mutex backendMutex;
std::shared_ptr<TimerBackend> installedBackend;

}  // namespace

Timer::Timer() = default;
Timer::~Timer() = default;
TimerBackend::TimerBackend() = default;
TimerBackend::~TimerBackend() = default;

std::shared_ptr<TimerBackend> installTimerBackend(std::shared_ptr<TimerBackend> backend) {
    std::lock_guard<std::mutex> guard(backendMutex);
    installedBackend.swap(backend);
    return backend;
}

std::shared_ptr<TimerBackend> timerBackend() {
    std::lock_guard<std::mutex> guard(backendMutex);
    if (!installedBackend) {
        throw std::runtime_error("No clock and timer backend is installed: the host must install one before use.");
    }
    return installedBackend;
}

long long getCurrentTick() { return timerBackend()->currentTick(); }

namespace {

// The backends count in nanoseconds, about 292 years; a client's advice may ask for a hold of
// up to 2^63 milliseconds. A longer wait than a century is as good as never and is held to it,
// so that no conversion overflows.
constexpr long long longestTicks = 100LL * 365 * 24 * 3600 * 1000 / tickMilliseconds;

std::chrono::milliseconds durationOf(long long ticks) {
    return std::chrono::milliseconds(std::min(ticks, longestTicks) * tickMilliseconds);
}

}  // namespace

TimerHandle delay(TimerCallback callback, long long ticks) {
    return timerBackend()->schedule(std::move(callback), durationOf(ticks), std::chrono::milliseconds(0));
}

TimerHandle periodic(TimerCallback callback, long long ticks) {
    auto period = durationOf(ticks);
    return timerBackend()->schedule(std::move(callback), period, period);
}

TimerHandle shortMsDelay(TimerCallback callback, unsigned char milliseconds) {
    return timerBackend()->schedule(std::move(callback), std::chrono::milliseconds(milliseconds),
                                    std::chrono::milliseconds(0));
}

}  // namespace korvane::common
