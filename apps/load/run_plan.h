#pragma once

// What every client of a run shares: the schedule, the message shape and the count
// of subscribers per room. The main thread sets the schedule before it posts the
// start of publishing to the I/O threads; the room counts are atomics the
// subscribers change as their subscriptions come and go and the publishers read.
// Every atomic is read relaxed: each is a value of its own.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>

namespace korvane::load {

// µs on the process's steady clock: the time base of the "t" every message carries.
inline std::int64_t nowMicros() {
    return std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

struct RunPlan {
    RunPlan(std::size_t roomCount, std::size_t publisherIds)
        : rooms(roomCount), publisherCount(publisherIds), subscribers(new std::atomic<std::int64_t>[roomCount]) {
        for (std::size_t i = 0; i < roomCount; ++i) {
            subscribers[i].store(0);
        }
    }

    const std::size_t rooms;
    // Publisher ids run from 0 to publisherCount - 1: the fixed-rate publishers, then the churners.
    const std::size_t publisherCount;
    std::size_t payloadBytes = 0;
    std::int64_t publishIntervalMicros = 0;  // per fixed-rate publisher
    // µs: the warm-up begins, measured publishing begins, publishing stops. Atomics
    // because a delivery may reach a subscriber while main still sets them.
    std::atomic<std::int64_t> publishStart{0};
    std::atomic<std::int64_t> measureStart{0};
    std::atomic<std::int64_t> measureEnd{std::numeric_limits<std::int64_t>::max()};
    std::unique_ptr<std::atomic<std::int64_t>[]> subscribers;

    // Whether a publish stamped `micros` falls in the measured time.
    bool isMeasured(std::int64_t micros) const {
        return micros >= measureStart.load(std::memory_order_relaxed) &&
               micros < measureEnd.load(std::memory_order_relaxed);
    }
    // Whether publishing still goes on at `micros`.
    bool isPublishing(std::int64_t micros) const {
        return micros < measureEnd.load(std::memory_order_relaxed);
    }  // per room, connected and subscribed
};

}  // namespace korvane::load
