#include "load/load_stats.h"

namespace korvane::load {

void LoadCounters::add(const LoadCounters& other) {
    sent += other.sent;
    expected += other.expected;
    delivered += other.delivered;
    duplicates += other.duplicates;
    reordered += other.reordered;
    errors += other.errors;
    handshakes += other.handshakes;
    rehandshakes += other.rehandshakes;
}

void StatsSnapshot::add(const StatsSnapshot& other) {
    counters.add(other.counters);
    latency.merge(other.latency);
    clientsUp += other.clientsUp;
}

StatsSnapshot ThreadStats::takeSecond() {
    StatsSnapshot second = second_;
    second.clientsUp = clientsUp_;
    total_.add(second_);
    second_ = StatsSnapshot();
    return second;
}

StatsSnapshot ThreadStats::total() const {
    StatsSnapshot all = total_;
    all.add(second_);
    all.clientsUp = clientsUp_;
    return all;
}

}  // namespace korvane::load
