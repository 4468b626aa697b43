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

std::optional<double> rssDriftPercent(const std::vector<std::pair<std::int64_t, std::int64_t>>& rss, double duration) {
    const double settled = duration >= 1200 ? 600 : duration / 6;
    double count = 0, sumT = 0, sumKb = 0, sumTT = 0, sumTKb = 0;
    double first = 0, last = 0;
    for (const auto& [second, kb] : rss) {
        if (second < settled) {
            continue;
        }
        const double t = static_cast<double>(second);
        first = count == 0 ? t : first;
        last = t;
        ++count;
        sumT += t;
        sumKb += static_cast<double>(kb);
        sumTT += t * t;
        sumTKb += t * static_cast<double>(kb);
    }
    const double spread = count * sumTT - sumT * sumT;
    if (count < 2 || spread <= 0) {
        return std::nullopt;
    }
    const double slope = (count * sumTKb - sumT * sumKb) / spread;
    const double atFirst = (sumKb - slope * sumT) / count + slope * first;
    if (atFirst <= 0) {
        return std::nullopt;
    }
    return 100.0 * slope * (last - first) / atFirst;
}

}  // namespace korvane::load
