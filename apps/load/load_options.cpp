#include "load/load_options.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <sstream>
#include <stdexcept>

namespace korvane::load {
namespace {

// One flag: its name, the text of its value for --help (empty for a switch), its
// help text, and how it is set from its value.
struct Flag {
    std::string name;
    std::string value;
    std::string help;
    std::function<void(LoadOptions&, const std::string& value)> set;
};

std::invalid_argument invalid(const std::string& flag, const std::string& text) {
    return std::invalid_argument("invalid value for " + flag + ": '" + text + "'");
}

std::size_t parseCount(const std::string& flag, const std::string& text, std::size_t min) {
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
    if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || value < min || value > 100000000ULL) {
        throw invalid(flag, text);
    }
    return static_cast<std::size_t>(value);
}

double parseAmount(const std::string& flag, const std::string& text) {
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(value >= 0) || value > 1e9) {
        throw invalid(flag, text);
    }
    return value;
}

std::vector<std::string> splitList(const std::string& text) {
    std::vector<std::string> items;
    std::istringstream stream(text);
    for (std::string item; std::getline(stream, item, ',');) {
        if (!item.empty()) {
            items.push_back(item);
        }
    }
    return items;
}

template <class Field>
std::function<void(LoadOptions&, const std::string&)> count(const std::string& flag, Field LoadOptions::*field,
                                                            std::size_t min) {
    return [flag, field, min](LoadOptions& options, const std::string& value) {
        options.*field = static_cast<Field>(parseCount(flag, value, min));
    };
}

std::function<void(LoadOptions&, const std::string&)> amount(const std::string& flag, double LoadOptions::*field) {
    return [flag, field](LoadOptions& options, const std::string& value) { options.*field = parseAmount(flag, value); };
}

std::vector<Flag> flags() {
    return {
        {"--url", "URL", "the server's Bayeux endpoint, http://host:port/path",
         [](LoadOptions& o, const std::string& v) { o.url = v; }},
        {"--transport", "ws|lp|mixed", "WebSocket, long-polling, or every other client each",
         [](LoadOptions& o, const std::string& v) {
             if (v != "ws" && v != "lp" && v != "mixed") {
                 throw invalid("--transport", v);
             }
             o.transport = v;
         }},
        {"--clients", "N", "subscribing clients", count("--clients", &LoadOptions::clients, 0)},
        {"--rooms", "N", "rooms (channels /rooms/0 ...)", count("--rooms", &LoadOptions::rooms, 1)},
        {"--rooms-per-client", "N", "rooms each client subscribes to or publishes in",
         count("--rooms-per-client", &LoadOptions::roomsPerClient, 1)},
        {"--publishers", "N", "publishing clients, besides the subscribers",
         count("--publishers", &LoadOptions::publishers, 0)},
        {"--rate", "MSG/S", "publishes per second, all publishers together, open loop",
         amount("--rate", &LoadOptions::rate)},
        {"--duration", "SECONDS", "measured time", amount("--duration", &LoadOptions::duration)},
        {"--warmup", "SECONDS", "publishing before the measured time", amount("--warmup", &LoadOptions::warmup)},
        {"--grace", "SECONDS", "wait for late deliveries after publishing ends",
         amount("--grace", &LoadOptions::grace)},
        {"--payload", "BYTES", "size of each message's data", count("--payload", &LoadOptions::payload, 0)},
        {"--threads", "N", "I/O threads", count("--threads", &LoadOptions::threads, 1)},
        {"--source-addresses", "A,B,...", "local addresses to connect from, round robin",
         [](LoadOptions& o, const std::string& v) { o.sourceAddresses = splitList(v); }},
        {"--server-pid", "PID", "report this process's CPU time and memory",
         [](LoadOptions& o, const std::string& v) {
             o.serverPid = static_cast<long>(parseCount("--server-pid", v, 1));
         }},
        {"--plot", "FILE.png", "draw rates and latencies over time and the latency CDF (gnuplot)",
         [](LoadOptions& o, const std::string& v) { o.plot = v; }},
        {"--check", "", "exit 1 on any loss, duplicate, reordering or error",
         [](LoadOptions& o, const std::string&) { o.check = true; }},
        {"--churn", "N", "clients that handshake, subscribe, publish once and disconnect, over and over",
         count("--churn", &LoadOptions::churn, 0)},
        {"--ramp", "CLIENTS/S", "how fast clients connect while the run sets up",
         amount("--ramp", &LoadOptions::rampPerSecond)},
        {"--setup-timeout", "SECONDS", "give up waiting for every client to be up after this",
         amount("--setup-timeout", &LoadOptions::setupTimeout)},
    };
}

void printUsage(std::ostream& out) {
    out << "usage: korvane-load [FLAG VALUE]...\n"
        << "Bayeux clients and publishers against a server; one JSON line of results on stdout.\n";
    for (const Flag& flag : flags()) {
        std::string head = "  " + flag.name + (flag.value.empty() ? "" : " " + flag.value);
        head.resize(std::max<std::size_t>(head.size() + 1, 32), ' ');
        out << head << flag.help << "\n";
    }
}

}  // namespace

LoadOptions parseLoadOptions(int argc, char** argv) {
    LoadOptions options;
    const std::vector<Flag> known = flags();
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (name == "--help" || name == "-h") {
            printUsage(std::cout);
            std::exit(0);
        }
        auto flag = std::find_if(known.begin(), known.end(), [&](const Flag& f) { return f.name == name; });
        if (flag == known.end()) {
            throw std::invalid_argument("unknown flag " + name);
        }
        if (flag->value.empty()) {
            flag->set(options, "");
            continue;
        }
        if (i + 1 >= argc) {
            throw std::invalid_argument("missing value for " + name);
        }
        flag->set(options, argv[++i]);
    }
    if (options.roomsPerClient > options.rooms) {
        throw std::invalid_argument("--rooms-per-client exceeds --rooms");
    }
    if (options.publishers > 0 && options.rate <= 0) {
        throw std::invalid_argument("--rate must be above 0 with publishers");
    }
    return options;
}

}  // namespace korvane::load
