#include "load/load_options.h"

#include "command_line.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <sstream>
#include <stdexcept>

namespace korvane::load {
namespace {

using Flag = apps::Flag<LoadOptions>;

using apps::invalidValue;

std::size_t parseCount(const std::string& flag, const std::string& text, std::size_t min) {
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
    if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || value < min || value > 100000000ULL) {
        throw invalidValue(flag, text);
    }
    return static_cast<std::size_t>(value);
}

double parseAmount(const std::string& flag, const std::string& text) {
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(value >= 0) || value > 1e9) {
        throw invalidValue(flag, text);
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
Flag::Setter count(const std::string& flag, Field LoadOptions::*field,
                                                            std::size_t min) {
    return [flag, field, min](LoadOptions& options, const std::string&, const std::string& value) {
        options.*field = static_cast<Field>(parseCount(flag, value, min));
    };
}

Flag::Setter amount(const std::string& flag, double LoadOptions::*field) {
    return [flag, field](LoadOptions& options, const std::string&, const std::string& value) { options.*field = parseAmount(flag, value); };
}

std::vector<Flag> flags() {
    return {
        {"--url", "URL", "", "the server's Bayeux endpoint, http://host:port/path",
         [](LoadOptions& o, const std::string&, const std::string& v) { o.url = v; }},
        {"--transport", "ws|lp|mixed", "", "WebSocket, long-polling, or every other client each",
         [](LoadOptions& o, const std::string&, const std::string& v) {
             if (v != "ws" && v != "lp" && v != "mixed") {
                 throw invalidValue("--transport", v);
             }
             o.transport = v;
         }},
        {"--clients", "N", "", "subscribing clients", count("--clients", &LoadOptions::clients, 0)},
        {"--rooms", "N", "", "rooms (channels /rooms/0 ...)", count("--rooms", &LoadOptions::rooms, 1)},
        {"--rooms-per-client", "N", "", "rooms each client subscribes to or publishes in",
         count("--rooms-per-client", &LoadOptions::roomsPerClient, 1)},
        {"--publishers", "N", "", "publishing clients, besides the subscribers",
         count("--publishers", &LoadOptions::publishers, 0)},
        {"--rate", "MSG/S", "", "publishes per second, all publishers together, open loop",
         amount("--rate", &LoadOptions::rate)},
        {"--duration", "SECONDS", "", "measured time", amount("--duration", &LoadOptions::duration)},
        {"--warmup", "SECONDS", "", "publishing before the measured time", amount("--warmup", &LoadOptions::warmup)},
        {"--grace", "SECONDS", "", "wait for late deliveries after publishing ends",
         amount("--grace", &LoadOptions::grace)},
        {"--payload", "BYTES", "", "size of each message's data", count("--payload", &LoadOptions::payload, 0)},
        {"--threads", "N", "", "I/O threads", count("--threads", &LoadOptions::threads, 1)},
        {"--source-addresses", "A,B,...", "", "local addresses to connect from, round robin",
         [](LoadOptions& o, const std::string&, const std::string& v) { o.sourceAddresses = splitList(v); }},
        {"--server-pid", "PID", "", "report this process's CPU time and memory",
         [](LoadOptions& o, const std::string&, const std::string& v) {
             o.serverPid = static_cast<long>(parseCount("--server-pid", v, 1));
         }},
        {"--plot", "FILE.png", "", "draw rates and latencies over time and the latency CDF (gnuplot)",
         [](LoadOptions& o, const std::string&, const std::string& v) { o.plot = v; }},
        {"--check", "", "", "exit 1 on any loss, duplicate, reordering or error",
         [](LoadOptions& o, const std::string&, const std::string&) { o.check = true; }},
        {"--churn", "N", "",
         "clients that handshake, subscribe, publish once, unsubscribe and disconnect, over and over",
         count("--churn", &LoadOptions::churn, 0)},
        {"--rss-every", "SECONDS", "", "sample the server's RSS this often (with --server-pid) and report its drift",
         amount("--rss-every", &LoadOptions::rssEverySeconds)},
        {"--ramp", "CLIENTS/S", "", "how fast clients connect while the run sets up",
         amount("--ramp", &LoadOptions::rampPerSecond)},
        {"--setup-timeout", "SECONDS", "", "give up waiting for every client to be up after this",
         amount("--setup-timeout", &LoadOptions::setupTimeout)},
    };
}

const char* const synopsis =
    "usage: korvane-load [FLAG VALUE]...\n"
    "Bayeux clients and publishers against a server; one JSON line of results on stdout.\n";

}  // namespace

LoadOptions parseLoadOptions(int argc, char** argv) {
    LoadOptions options;
    apps::applyFlags(argc, argv, synopsis, flags(), options);
    if (options.roomsPerClient > options.rooms) {
        throw std::invalid_argument("--rooms-per-client exceeds --rooms");
    }
    if (options.publishers > 0 && options.rate <= 0) {
        throw std::invalid_argument("--rate must be above 0 with publishers");
    }
    return options;
}

}  // namespace korvane::load
