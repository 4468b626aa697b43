#pragma once

// The waits between attempts to reach a server that went away: they start short,
// double after each failure and stop growing at a cap; a success starts them over.
// A plain value owned by the one thread that retries.

#include <chrono>

namespace korvane::cluster {

class Backoff {
public:
    Backoff(std::chrono::milliseconds first, std::chrono::milliseconds cap) : first(first), cap(cap), upcoming(first) {}

    // The wait before the next attempt; each call doubles the one after it, up to the cap.
    std::chrono::milliseconds next() {
        const std::chrono::milliseconds wait = upcoming;
        upcoming = upcoming * 2 > cap ? cap : upcoming * 2;
        return wait;
    }

    void reset() { upcoming = first; }

private:
    const std::chrono::milliseconds first;
    const std::chrono::milliseconds cap;
    std::chrono::milliseconds upcoming;
};

}  // namespace korvane::cluster
