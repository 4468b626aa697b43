#pragma once

// What the load tool counts. Every I/O thread owns one ThreadStats and is the only
// one to touch it; the main thread gets copies by posting to that thread, once a
// second and at the end, so that nothing on the hot path takes a lock.

#include <cstdint>

#include "load/latency_histogram.h"

namespace korvane::load {

struct LoadCounters {
    std::uint64_t sent = 0;       // publishes sent inside the measured window
    std::uint64_t expected = 0;   // deliveries those publishes should cause
    std::uint64_t delivered = 0;  // deliveries of measured publishes, duplicates left out
    std::uint64_t duplicates = 0;
    std::uint64_t reordered = 0;
    std::uint64_t errors = 0;        // broken connections, error statuses, unsuccessful replies
    std::uint64_t handshakes = 0;    // successful ones
    std::uint64_t rehandshakes = 0;  // sessions the server dropped and the client made again
    std::uint64_t connects = 0;      // connect replies received inside the measured window

    void add(const LoadCounters& other);
};

struct StatsSnapshot {
    LoadCounters counters;
    LatencyHistogram latency;  // µs from a publish's scheduled send time to its delivery
    std::int64_t clientsUp = 0;

    void add(const StatsSnapshot& other);
};

// Threading: one I/O thread's; see above.
class ThreadStats {
public:
    LoadCounters& counters() { return second.counters; }
    void recordLatency(std::uint64_t micros) { second.latency.record(micros); }
    void clientUp() { ++clientsUp; }
    void clientDown() { --clientsUp; }

    // The last second's figures; they are added to the totals and start again.
    StatsSnapshot takeSecond();
    // Everything so far, the current second included.
    StatsSnapshot total() const;

private:
    StatsSnapshot second;
    StatsSnapshot totals;
    std::int64_t clientsUp = 0;
};

}  // namespace korvane::load
