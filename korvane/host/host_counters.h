#pragma once

// What the host's HTTP and WebSocket server counts, per thread (see thread_counters.h),
// and how those counts, with the process's own figures from /proc, read as metrics.
//
// Threading: count() and countResponse() on any thread, without a lock; the writers on
// any thread.

#include <cstddef>
#include <cstdint>

#include "korvane/frame/metrics.h"
#include "korvane/frame/thread_counters.h"

namespace korvane::host {

enum class HostCounter : std::size_t {
    longPollBytesIn,
    longPollBytesOut,
    webSocketBytesIn,
    webSocketBytesOut,
    webSocketFramesIn,
    webSocketFramesOut,
    connectionsRefused,
    webSocketCutForBacklog,
    webSocketCutForWriteTimeout,
    refusedForBody,
    refusedForHeader,
    refusedForMessageSize,
    refusedForOrigin,
    // One per status class, 1xx to 5xx.
    responses1xx,
    end = responses1xx + 5
};

extern common::ThreadCounters& hostCounters;

inline void count(HostCounter counter, std::uint64_t n = 1) { hostCounters.add(static_cast<std::size_t>(counter), n); }

// A response sent with this HTTP status.
inline void countResponse(unsigned status) {
    if (status >= 100 && status < 600) {
        hostCounters.add(static_cast<std::size_t>(HostCounter::responses1xx) + status / 100 - 1);
    }
}

void writeHostCounters(common::MetricsWriter& writer);
// process_cpu_seconds_total, process_resident_memory_bytes, process_open_fds and
// process_start_time_seconds, from /proc; a figure that cannot be read is left out.
void writeProcessMetrics(common::MetricsWriter& writer);

}  // namespace korvane::host
