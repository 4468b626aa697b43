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
    connects += other.connects;
}

void StatsSnapshot::add(const StatsSnapshot& other) {
    counters.add(other.counters);
    latency.merge(other.latency);
    clientsUp += other.clientsUp;
}

StatsSnapshot ThreadStats::takeSecond() {
    StatsSnapshot taken = second;
    taken.clientsUp = clientsUp;
    totals.add(second);
    second = StatsSnapshot();
    return taken;
}

StatsSnapshot ThreadStats::total() const {
    StatsSnapshot all = totals;
    all.add(second);
    all.clientsUp = clientsUp;
    return all;
}

}  // namespace korvane::load
