// korvane-bayeux: the reference server. Composes the routing core and the protocol
// service on the reference host (service registry, timer thread, stderr logging).
//
// Threads: main parses flags, composes the services and then waits for SIGINT or
// SIGTERM; the host's timer thread drives the sweep and the connect timers.

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include "korvane/bayeux.h"
#include "korvane/host/host.h"

namespace {

struct Options {
    std::string host = "127.0.0.1";
    unsigned short port = 8080;
    unsigned logLevels = korvane::common::defaultLogLevels;
};

void printUsage(std::ostream& out) {
    out << "usage: korvane-bayeux [--host ADDRESS] [--port PORT] [--log-levels MASK]\n"
           "  defaults: --host 127.0.0.1 --port 8080 --log-levels 768\n";
}

unsigned long parseNumber(const std::string& flag, const std::string& text, unsigned long max) {
    char* end = nullptr;
    unsigned long value = std::strtoul(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || value > max) {
        throw std::invalid_argument("invalid value for " + flag + ": '" + text + "'");
    }
    return value;
}

Options parseOptions(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        std::string flag = argv[i];
        if (flag == "--help" || flag == "-h") {
            printUsage(std::cout);
            std::exit(0);
        }
        if (i + 1 >= argc) {
            throw std::invalid_argument("missing value for " + flag);
        }
        std::string value = argv[++i];
        if (flag == "--host") {
            options.host = value;
        } else if (flag == "--port") {
            options.port = static_cast<unsigned short>(parseNumber(flag, value, 65535));
        } else if (flag == "--log-levels") {
            options.logLevels = static_cast<unsigned>(parseNumber(flag, value, 0xffffffffUL));
        } else {
            throw std::invalid_argument("unknown flag " + flag);
        }
    }
    return options;
}

void waitForStopSignal() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    int received = 0;
    sigwait(&signals, &received);
}

}  // namespace

int main(int argc, char** argv) {
    using namespace korvane;
    Options options;
    try {
        options = parseOptions(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "korvane-bayeux: " << error.what() << "\n";
        printUsage(std::cerr);
        return 2;
    }

    // Block the stop signals before any thread starts, so that only sigwait sees them.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    common::installStderrLogSink();
    common::setLogLevels(options.logLevels);

    auto timers = std::make_shared<host::ThreadedTimerBackend>();
    timers->start();
    common::installTimerBackend(timers);

    auto registry = std::make_shared<host::ServiceRegistry>();
    auto server = std::make_shared<bayeux::BayeuxServerImpl>();
    auto protocol = std::make_shared<bayeux::BayeuxServiceProviderImpl>(server);
    registry->add(Address("bayeux"), protocol);
    registry->startAll();

    std::cout << "korvane-bayeux: protocol service started; the HTTP and WebSocket transports are not built "
                 "yet, so nothing listens on "
              << options.host << ":" << options.port << " (Ctrl-C stops)" << std::endl;
    waitForStopSignal();

    registry->stopAll();
    protocol.reset();
    registry.reset();
    common::installTimerBackend(nullptr);
    timers->stop();
    std::cout << "korvane-bayeux: stopped" << std::endl;
    return 0;
}
