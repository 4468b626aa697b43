#pragma once

// Reads another process's CPU time and memory from /proc. Threading: none.

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace korvane::load {

struct ProcessSample {
    double cpuSeconds = 0;       // user + system
    std::int64_t rssKb = 0;      // VmRSS
    std::int64_t peakRssKb = 0;  // VmHWM
};

// Empty when the process is gone or /proc cannot be read.
std::optional<ProcessSample> sampleProcess(long pid);

// This process's user + system CPU time.
double ownCpuSeconds();

// How far RSS moved, in percent, once the run has settled (after 10 minutes, or after
// the first sixth of a shorter run): the change of the least-squares line through the
// settled samples from the first of them to the last, against the line's first value.
// A line, not the farthest sample, because a churning server's RSS swings by a few
// percent from minute to minute without going anywhere. Samples are (second of the
// run, RSS in kB). Empty when fewer than two samples come after settling.
std::optional<double> rssDriftPercent(const std::vector<std::pair<std::int64_t, std::int64_t>>& rss, double duration);

}  // namespace korvane::load
