#include "korvane/frame/timers.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace korvane::common {

namespace {

const char* const missingBackend = "No clock and timer backend is installed: the host must install one before use.";

// `installedBackend` owns the backend; `backendMutex` guards it. The free functions below
// reach the backend through `currentBackend` without a lock, as a counted use in the
// slot of the current epoch. An install (one at a time, under `installMutex`) publishes
// the new pointer, moves the epoch on, and waits for the uses counted in the old slot:
// those are the only ones that may hold the old pointer, since a use confirms its epoch
// after counting itself, and one that started later reads the new pointer. Uses that
// keep coming therefore never hold an install back. Every access is sequentially
// consistent.
std::mutex installMutex;
std::mutex backendMutex;
std::shared_ptr<TimerBackend> installedBackend;
std::atomic<TimerBackend*> currentBackend{nullptr};
std::atomic<unsigned> backendEpoch{0};
std::atomic<unsigned> backendUses[2];

class BackendUse {
public:
    BackendUse() {
        for (;;) {
            slot = backendEpoch.load() & 1;
            backendUses[slot].fetch_add(1);
            if ((backendEpoch.load() & 1) == slot) {
                break;
            }
            backendUses[slot].fetch_sub(1);
        }
        backend = currentBackend.load();
        if (backend == nullptr) {
            backendUses[slot].fetch_sub(1);
            throw std::runtime_error(missingBackend);
        }
    }
    ~BackendUse() { backendUses[slot].fetch_sub(1); }
    BackendUse(const BackendUse&) = delete;
    BackendUse& operator=(const BackendUse&) = delete;

    TimerBackend* operator->() const { return backend; }

private:
    unsigned slot = 0;
    TimerBackend* backend = nullptr;
};

}  // namespace

Timer::Timer() = default;
Timer::~Timer() = default;
RearmableTimer::RearmableTimer() = default;
RearmableTimer::~RearmableTimer() = default;
TimerBackend::TimerBackend() = default;
TimerBackend::~TimerBackend() = default;

std::shared_ptr<TimerBackend> installTimerBackend(std::shared_ptr<TimerBackend> backend) {
    std::lock_guard<std::mutex> installing(installMutex);
    {
        std::lock_guard<std::mutex> guard(backendMutex);
        installedBackend.swap(backend);
        currentBackend.store(installedBackend.get());
    }
    const unsigned oldSlot = backendEpoch.fetch_add(1) & 1;
    // A use is one call into the backend, which never waits for an install.
    while (backendUses[oldSlot].load() != 0) {
        std::this_thread::yield();
    }
    return backend;
}

std::shared_ptr<TimerBackend> timerBackend() {
    std::lock_guard<std::mutex> guard(backendMutex);
    if (!installedBackend) {
        throw std::runtime_error(missingBackend);
    }
    return installedBackend;
}

long long getCurrentTick() { return BackendUse()->currentTick(); }

// The backends count in nanoseconds, about 292 years: held to a century, no conversion overflows.
std::chrono::milliseconds durationOfTicks(long long ticks) {
    constexpr long long longestTicks = 100LL * 365 * 24 * 3600 * 1000 / tickMilliseconds;
    return std::chrono::milliseconds(std::min(ticks, longestTicks) * tickMilliseconds);
}

TimerHandle delay(TimerCallback callback, long long ticks) {
    return BackendUse()->schedule(std::move(callback), durationOfTicks(ticks), std::chrono::milliseconds(0));
}

TimerHandle periodic(TimerCallback callback, long long ticks) {
    auto period = durationOfTicks(ticks);
    return BackendUse()->schedule(std::move(callback), period, period);
}

TimerHandle shortMsDelay(TimerCallback callback, unsigned char milliseconds) {
    return BackendUse()->schedule(std::move(callback), std::chrono::milliseconds(milliseconds),
                                    std::chrono::milliseconds(0));
}

std::unique_ptr<RearmableTimer> rearmableTimer(TimerCallback callback) {
    return BackendUse()->makeRearmableTimer(std::move(callback));
}

}  // namespace korvane::common
