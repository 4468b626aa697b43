#pragma once

// The run's chart: messages per second and latency percentiles over time above the
// latency CDF, in one PNG drawn by gnuplot. The data files and the gnuplot script
// go next to the PNG. Threading: none.

#include <string>
#include <vector>

#include "load/latency_histogram.h"

namespace korvane::load {

struct SecondPoint {
    double at = 0;  // seconds since the measured time began (negative in the warm-up)
    double sentPerSecond = 0;
    double deliveredPerSecond = 0;
    double p50Ms = 0;
    double p99Ms = 0;
    double maxMs = 0;
};

// Writes the files and runs gnuplot; false (with a line on stderr) when either fails.
bool writePlot(const std::string& pngPath, const std::vector<SecondPoint>& seconds, const LatencyHistogram& latency);

}  // namespace korvane::load
