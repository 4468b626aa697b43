#include "korvane/host/host_counters.h"

#include <unistd.h>

#include <filesystem>
#include <limits>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace korvane::host {

common::ThreadCounters& hostCounters = common::ThreadCounters::process(static_cast<std::size_t>(HostCounter::end));

namespace {

using common::MetricsWriter;

std::uint64_t total(const std::vector<std::uint64_t>& totals, HostCounter counter) {
    return totals[static_cast<std::size_t>(counter)];
}

void writeLabelled(MetricsWriter& writer, const std::vector<std::uint64_t>& totals, const char* name,
                   const char* help, const char* label,
                   std::initializer_list<std::pair<const char*, HostCounter>> rows) {
    writer.family(name, "counter", help);
    for (const auto& [value, counter] : rows) {
        writer.sample(name, total(totals, counter), {{label, value}});
    }
}

std::string readFile(const char* path) {
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The fields of /proc/self/stat after the command name, which may hold spaces; the
// first of them (the state) is field 3.
std::vector<std::string> statFields() {
    const std::string stat = readFile("/proc/self/stat");
    const std::size_t close = stat.rfind(')');
    std::vector<std::string> fields;
    if (close == std::string::npos) {
        return fields;
    }
    std::istringstream in(stat.substr(close + 1));
    for (std::string field; in >> field;) {
        fields.push_back(field);
    }
    return fields;
}

// The boot time, seconds since the epoch, from /proc/stat.
std::optional<double> bootTime() {
    std::istringstream in(readFile("/proc/stat"));
    for (std::string key; in >> key;) {
        if (key == "btime") {
            double seconds = 0;
            in >> seconds;
            return seconds;
        }
        in.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    }
    return std::nullopt;
}

std::size_t openDescriptors() {
    std::error_code error;
    std::filesystem::directory_iterator entries("/proc/self/fd", error);
    return error ? 0 : static_cast<std::size_t>(std::distance(entries, std::filesystem::directory_iterator()));
}

}  // namespace

void writeHostCounters(MetricsWriter& writer) {
    const std::vector<std::uint64_t> totals = hostCounters.totals();
    writeLabelled(writer, totals, "korvane_transport_received_bytes_total",
                  "Bytes of Bayeux requests and WebSocket messages received.", "transport",
                  {{"long-polling", HostCounter::longPollBytesIn}, {"websocket", HostCounter::webSocketBytesIn}});
    writeLabelled(writer, totals, "korvane_transport_sent_bytes_total",
                  "Bytes of Bayeux responses and WebSocket messages sent.", "transport",
                  {{"long-polling", HostCounter::longPollBytesOut}, {"websocket", HostCounter::webSocketBytesOut}});
    writer.single("korvane_websocket_frames_received_total", "counter", "WebSocket messages received.",
                  total(totals, HostCounter::webSocketFramesIn));
    writer.single("korvane_websocket_frames_sent_total", "counter", "WebSocket messages sent.",
                  total(totals, HostCounter::webSocketFramesOut));
    writer.single("korvane_connections_refused_total", "counter",
                  "Connections closed on arrival because the connection limit was reached.",
                  total(totals, HostCounter::connectionsRefused));
    writeLabelled(writer, totals, "korvane_websocket_cut_total",
                  "WebSockets cut for a peer that reads too slowly.", "reason",
                  {{"backlog", HostCounter::webSocketCutForBacklog},
                   {"write_timeout", HostCounter::webSocketCutForWriteTimeout}});
    writeLabelled(writer, totals, "korvane_requests_refused_total", "Requests refused by a limit.", "limit",
                  {{"body", HostCounter::refusedForBody},
                   {"header", HostCounter::refusedForHeader},
                   {"message_size", HostCounter::refusedForMessageSize},
                   {"origin", HostCounter::refusedForOrigin}});
    writer.family("korvane_http_responses_total", "counter",
                  "HTTP responses sent, by status class (1xx: WebSocket upgrades).");
    const char* const classes[] = {"1xx", "2xx", "3xx", "4xx", "5xx"};
    for (std::size_t index = 0; index < 5; ++index) {
        writer.sample("korvane_http_responses_total",
                      totals[static_cast<std::size_t>(HostCounter::responses1xx) + index], {{"class", classes[index]}});
    }
}

void writeProcessMetrics(MetricsWriter& writer) {
    const std::vector<std::string> stat = statFields();
    const double ticksPerSecond = static_cast<double>(sysconf(_SC_CLK_TCK));
    // utime and stime are fields 14 and 15, starttime field 22: indexes 11, 12 and 19 here.
    if (stat.size() > 19) {
        writer.family("process_cpu_seconds_total", "counter", "User and system CPU time spent, in seconds.");
        writer.sample("process_cpu_seconds_total", (std::stod(stat[11]) + std::stod(stat[12])) / ticksPerSecond);
        if (const std::optional<double> boot = bootTime()) {
            writer.family("process_start_time_seconds", "gauge",
                          "Start time of the process since the epoch, in seconds.");
            writer.sample("process_start_time_seconds", *boot + std::stod(stat[19]) / ticksPerSecond);
        }
    }
    std::istringstream statm(readFile("/proc/self/statm"));
    std::uint64_t sizePages = 0;
    std::uint64_t residentPages = 0;
    if (statm >> sizePages >> residentPages) {
        writer.single("process_resident_memory_bytes", "gauge", "Resident memory size, in bytes.",
                      residentPages * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)));
    }
    writer.single("process_open_fds", "gauge", "Open file descriptors.", openDescriptors());
}

}  // namespace korvane::host
