#include "load/process_probe.h"

#include <sys/resource.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace korvane::load {
namespace {

// utime + stime, the 14th and 15th fields of /proc/PID/stat; counting starts after
// the command name, which may hold spaces but ends at the last ')'.
std::optional<double> cpuSecondsOf(long pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(file, line)) {
        return std::nullopt;
    }
    const std::size_t close = line.rfind(')');
    if (close == std::string::npos) {
        return std::nullopt;
    }
    std::istringstream fields(line.substr(close + 2));
    std::string field;
    unsigned long long utime = 0;
    unsigned long long stime = 0;
    for (int index = 3; fields >> field; ++index) {
        if (index == 14) {
            utime = std::stoull(field);
        } else if (index == 15) {
            stime = std::stoull(field);
            return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
        }
    }
    return std::nullopt;
}

std::int64_t kilobytesAfter(const std::string& line, const std::string& key) {
    return std::stoll(line.substr(key.size()));
}

}  // namespace

std::optional<ProcessSample> sampleProcess(long pid) {
    const auto cpu = cpuSecondsOf(pid);
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    if (!cpu || !status) {
        return std::nullopt;
    }
    ProcessSample sample;
    sample.cpuSeconds = *cpu;
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            sample.rssKb = kilobytesAfter(line, "VmRSS:");
        } else if (line.rfind("VmHWM:", 0) == 0) {
            sample.peakRssKb = kilobytesAfter(line, "VmHWM:");
        }
    }
    return sample;
}

double ownCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) { return time.tv_sec + time.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

}  // namespace korvane::load
