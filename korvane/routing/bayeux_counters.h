#pragma once

// What the protocol's layers count, per thread (see thread_counters.h), and how those
// counts read as metrics. The routing core, the long-poll session and the protocol
// service count here; the host writes them with writeBayeuxCounters at each scrape.
//
// Threading: count() and raisePendingHighWater() on any thread, without a lock;
// writeBayeuxCounters on any thread.

#include <cstddef>
#include <cstdint>

#include "korvane/frame/metrics.h"
#include "korvane/frame/thread_counters.h"

#include "korvane/export.h"

namespace korvane::bayeux {

enum class BayeuxCounter : std::size_t {
    handshakes,
    disconnects,
    clientsSwept,
    clientsDroppedOverPending,
    shortPolls,
    messagesPublished,
    deliveries,
    end
};

extern KORVANE_EXPORT common::ThreadCounters& bayeuxCounters;

inline void count(BayeuxCounter counter, std::uint64_t n = 1) {
    bayeuxCounters.add(static_cast<std::size_t>(counter), n);
}

// Messages waiting for one client, at its most.
inline void raisePendingHighWater(std::size_t pending) {
    bayeuxCounters.raise(static_cast<std::size_t>(BayeuxCounter::end), pending);
}

KORVANE_EXPORT void writeBayeuxCounters(common::MetricsWriter& writer);

}  // namespace korvane::bayeux
