#pragma once

// What every client of a run shares: the schedule, the message shape and the count
// of subscribers per room. The main thread fills the schedule before it posts the
// start of publishing to the I/O threads, which only read it afterwards; the room
// counts are atomics the subscribers change as their subscriptions come and go and
// the publishers read.

#include <atomic>
#include <chrono>
#include <cstdint>
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
    std::int64_t publishStart = 0;           // µs; the warm-up begins
    std::int64_t measureStart = 0;           // µs; publishes from here on are measured
    std::int64_t measureEnd = 0;             // µs; publishing stops
    std::unique_ptr<std::atomic<std::int64_t>[]> subscribers;  // per room, connected and subscribed
};

}  // namespace korvane::load
