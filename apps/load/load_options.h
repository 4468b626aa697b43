#pragma once

// The load tool's flags. Threading: none.

#include <cstddef>
#include <string>
#include <vector>

namespace korvane::load {

struct LoadOptions {
    std::string url = "http://127.0.0.1:8080/bayeux";
    std::string transport = "ws";  // ws, lp or mixed
    std::size_t clients = 100;
    std::size_t rooms = 10;
    std::size_t roomsPerClient = 1;
    std::size_t publishers = 1;
    double rate = 100;  // messages/s, all publishers together
    double duration = 10;
    double warmup = 2;
    double grace = 3;
    std::size_t payload = 64;
    std::size_t threads = 1;
    std::vector<std::string> sourceAddresses;
    long serverPid = 0;
    std::string plot;
    bool check = false;
    std::size_t churn = 0;
    double rssEverySeconds = 0;  // 0: the server's RSS is sampled at the start and end only
    double rampPerSecond = 5000;  // new clients per second while the run sets up
    double setupTimeout = 300;
};

// Throws std::invalid_argument naming the flag. --help prints the usage and exits.
LoadOptions parseLoadOptions(int argc, char** argv);

}  // namespace korvane::load
