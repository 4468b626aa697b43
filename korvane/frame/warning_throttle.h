#pragma once

// Lets a warning through at most once per period, so that a fault that lasts (a Redis
// server that is down, clients dropped one after another) is reported without flooding
// the log. The caller passes the time, which keeps the throttle free of any clock.
//
// Locking: one mutex guards `lastAllowed`; any thread may ask.

#include <chrono>
#include <mutex>
#include <optional>

#include "korvane/export.h"

namespace korvane::common {

class KORVANE_EXPORT WarningThrottle {
public:
    using Clock = std::chrono::steady_clock;

    explicit WarningThrottle(Clock::duration period) : period(period) {}

    // True for the first call and then for the first call a whole period after the last true.
    bool allow(Clock::time_point now) {
        std::lock_guard<std::mutex> guard(mutex);
        if (lastAllowed && now - *lastAllowed < period) {
            return false;
        }
        lastAllowed = now;
        return true;
    }

private:
    const Clock::duration period;
    std::mutex mutex;
    std::optional<Clock::time_point> lastAllowed;
};

}  // namespace korvane::common
