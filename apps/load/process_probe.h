#pragma once

// Reads another process's CPU time and memory from /proc. Threading: none.

#include <cstdint>
#include <optional>

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

}  // namespace korvane::load
