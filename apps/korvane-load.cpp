// korvane-load: a load generator that speaks Bayeux as browsers do. Subscribers
// hold their rooms over WebSocket or long-polling, publishers send at a fixed total
// rate whatever the replies, and every delivery is checked for latency, loss,
// duplicates and order. A progress line each second goes to stderr, one JSON line
// of results to stdout.
//
// Threads: main sets the run up, keeps the schedule and gathers the figures; each
// I/O thread runs its own io_context with its share of the clients and its own
// counters, which main reads by posting to it (once a second and at the end).

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <cmath>
#include <cstdio>
#include <future>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "load/load_client.h"
#include "load/load_options.h"
#include "load/load_plot.h"
#include "load/load_stats.h"
#include "load/process_probe.h"
#include "load/run_plan.h"

namespace {

using namespace korvane::load;
using tcp = boost::asio::ip::tcp;

// One I/O thread with its clients and counters. Members are destroyed in reverse:
// the clients go before the io_context their sockets belong to.
struct Worker {
    boost::asio::io_context io{1};
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work{io.get_executor()};
    ThreadStats stats;
    std::vector<std::unique_ptr<LoadClient>> clients;
    std::thread thread;
};

// The parts of --url: where to connect and what to ask for.
struct ServerUrl {
    tcp::endpoint endpoint;
    std::string hostHeader;
    std::string path;
};

ServerUrl parseServerUrl(const std::string& url) {
    const std::string scheme = "http://";
    if (url.compare(0, scheme.size(), scheme) != 0) {
        throw std::invalid_argument("--url must start with http://: " + url);
    }
    const std::size_t pathStart = url.find('/', scheme.size());
    const std::string authority = url.substr(scheme.size(), pathStart - scheme.size());
    const std::size_t colon = authority.rfind(':');
    if (colon == std::string::npos || pathStart == std::string::npos) {
        throw std::invalid_argument("--url needs a port and a path: " + url);
    }
    boost::asio::io_context io;
    tcp::resolver resolver(io);
    const auto results = resolver.resolve(authority.substr(0, colon), authority.substr(colon + 1));
    return {results.begin()->endpoint(), authority, url.substr(pathStart)};
}

std::vector<std::size_t> pickRooms(std::mt19937& random, std::size_t rooms, std::size_t count) {
    std::set<std::size_t> picked;
    std::uniform_int_distribution<std::size_t> any(0, rooms - 1);
    while (picked.size() < count) {
        picked.insert(any(random));
    }
    return {picked.begin(), picked.end()};
}

Transport transportOf(const std::string& choice, std::size_t index) {
    if (choice == "mixed") {
        return index % 2 == 0 ? Transport::webSocket : Transport::longPolling;
    }
    return choice == "lp" ? Transport::longPolling : Transport::webSocket;
}

// Creates every client on its worker: subscribers first, then publishers, then churners.
void createClients(const LoadOptions& options, const ServerUrl& server, RunPlan& plan,
                   std::vector<std::unique_ptr<Worker>>& workers) {
    std::vector<boost::asio::ip::address> sources;
    for (const std::string& text : options.sourceAddresses) {
        sources.push_back(boost::asio::ip::make_address(text));
    }
    const std::size_t total = options.clients + options.publishers + options.churn;
    for (std::size_t index = 0; index < total; ++index) {
        ClientSetup setup;
        setup.seed = static_cast<std::uint32_t>(index * 2654435761U + 1);
        std::mt19937 random(setup.seed);
        setup.role = index < options.clients                        ? Role::subscriber
                     : index < options.clients + options.publishers ? Role::publisher
                                                                    : Role::churner;
        setup.publisherId = setup.role == Role::subscriber ? -1 : static_cast<std::int64_t>(index - options.clients);
        setup.transport = transportOf(options.transport, index);
        setup.rooms = pickRooms(random, options.rooms, options.roomsPerClient);
        setup.target = {server.endpoint, server.hostHeader, server.path,
                        sources.empty() ? boost::asio::ip::address() : sources[index % sources.size()]};
        Worker& worker = *workers[index % workers.size()];
        worker.clients.push_back(std::make_unique<LoadClient>(worker.io, worker.stats, plan, std::move(setup)));
    }
}

// Runs `task` on every worker's thread and waits for all of them.
template <class Task>
std::vector<StatsSnapshot> onEveryWorker(std::vector<std::unique_ptr<Worker>>& workers, Task task) {
    std::vector<std::promise<StatsSnapshot>> promises(workers.size());
    for (std::size_t i = 0; i < workers.size(); ++i) {
        boost::asio::post(workers[i]->io, [&, i] { promises[i].set_value(task(*workers[i])); });
    }
    std::vector<StatsSnapshot> snapshots;
    for (auto& promise : promises) {
        snapshots.push_back(promise.get_future().get());
    }
    return snapshots;
}

StatsSnapshot takeSecond(std::vector<std::unique_ptr<Worker>>& workers) {
    StatsSnapshot all;
    for (const StatsSnapshot& one : onEveryWorker(workers, [](Worker& w) { return w.stats.takeSecond(); })) {
        all.add(one);
    }
    return all;
}

StatsSnapshot takeTotal(std::vector<std::unique_ptr<Worker>>& workers) {
    StatsSnapshot all;
    for (const StatsSnapshot& one : onEveryWorker(workers, [](Worker& w) { return w.stats.total(); })) {
        all.add(one);
    }
    return all;
}

void sleepUntil(std::int64_t micros) {
    const std::int64_t wait = micros - nowMicros();
    if (wait > 0) {
        std::this_thread::sleep_for(std::chrono::microseconds(wait));
    }
}

double ms(std::uint64_t micros) { return micros / 1000.0; }

void printProgress(const std::string& phase, double at, const StatsSnapshot& second, std::size_t clientsWanted) {
    char line[256];
    std::snprintf(line, sizeof line,
                  "korvane-load: %-7s t=%+6.0fs up %lld/%zu sent %llu/s delivered %llu/s p50 %.2f ms p99 %.2f ms "
                  "errors %llu",
                  phase.c_str(), at, static_cast<long long>(second.clientsUp), clientsWanted,
                  static_cast<unsigned long long>(second.counters.sent),
                  static_cast<unsigned long long>(second.counters.delivered), ms(second.latency.valueAtQuantile(0.5)),
                  ms(second.latency.valueAtQuantile(0.99)), static_cast<unsigned long long>(second.counters.errors));
    std::cerr << line << std::endl;
}

// Starts the clients at the ramp's pace and waits until all of them are up or the
// setup time is over; returns how many are up.
std::int64_t setUp(const LoadOptions& options, std::vector<std::unique_ptr<Worker>>& workers) {
    std::size_t index = 0;
    const double ramp = options.rampPerSecond > 0 ? options.rampPerSecond : 1e12;
    for (auto& worker : workers) {
        std::vector<std::pair<LoadClient*, std::chrono::microseconds>> starts;
        for (auto& client : worker->clients) {
            if (client->role() != Role::churner) {
                starts.emplace_back(client.get(), std::chrono::microseconds(static_cast<std::int64_t>(
                                                      1e6 * static_cast<double>(index++ * workers.size()) / ramp /
                                                      static_cast<double>(workers.size()))));
            }
        }
        boost::asio::post(worker->io, [starts] {
            for (const auto& [client, delay] : starts) {
                client->startAfter(delay);
            }
        });
    }
    const std::int64_t wanted = static_cast<std::int64_t>(options.clients + options.publishers);
    const std::int64_t started = nowMicros();
    std::int64_t up = 0;
    for (std::int64_t tick = started + 1000000; up < wanted; tick += 1000000) {
        sleepUntil(tick);
        const StatsSnapshot second = takeSecond(workers);
        up = second.clientsUp;
        printProgress("setup", (tick - started) / 1e6, second, static_cast<std::size_t>(wanted));
        if (tick - started > static_cast<std::int64_t>(options.setupTimeout * 1e6)) {
            break;
        }
    }
    return up;
}

void startPublishing(std::vector<std::unique_ptr<Worker>>& workers) {
    for (auto& worker : workers) {
        boost::asio::post(worker->io, [&worker = *worker] {
            for (auto& client : worker.clients) {
                if (client->role() != Role::subscriber) {
                    client->startPublishing();
                }
            }
        });
    }
}

// The server's samples, and korvane-load's own CPU over the same measured time.
struct RunFigures {
    std::optional<ProcessSample> atStart;  // before any client connected
    std::optional<ProcessSample> atMeasureStart;
    std::optional<ProcessSample> atMeasureEnd;
    std::optional<ProcessSample> atEnd;
    double toolCpuAtMeasureStart = 0;
    double toolCpuAtMeasureEnd = 0;
    // (second of the measured time, RSS in kB) every --rss-every seconds.
    std::vector<std::pair<std::int64_t, std::int64_t>> rss;
};

std::string jsonNumber(double value) {
    std::ostringstream out;
    out.precision(6);
    out << (std::isfinite(value) ? value : 0.0);
    return out.str();
}

void printResults(const LoadOptions& options, const StatsSnapshot& total, std::int64_t clientsUp,
                  std::uint64_t measuredHandshakes, const RunFigures& figures, std::uint64_t lost) {
    const LoadCounters& c = total.counters;
    const double duration = options.duration > 0 ? options.duration : 1;
    std::ostringstream out;
    const auto field = [&out](const char* name, const std::string& value) {
        out << (out.tellp() == 0 ? "{" : ",") << '"' << name << "\":" << value;
    };
    const auto count = [](std::uint64_t value) { return std::to_string(value); };
    field("transport", '"' + options.transport + '"');
    field("clients", count(options.clients));
    field("publishers", count(options.publishers));
    field("churn", count(options.churn));
    field("clients_up", std::to_string(clientsUp));
    field("rate", jsonNumber(options.rate));
    field("sent", count(c.sent));
    field("expected", count(c.expected));
    field("delivered", count(c.delivered));
    field("sent_per_s", jsonNumber(c.sent / duration));
    field("delivered_per_s", jsonNumber(c.delivered / duration));
    field("p50_ms", jsonNumber(ms(total.latency.valueAtQuantile(0.5))));
    field("p90_ms", jsonNumber(ms(total.latency.valueAtQuantile(0.9))));
    field("p99_ms", jsonNumber(ms(total.latency.valueAtQuantile(0.99))));
    field("p999_ms", jsonNumber(ms(total.latency.valueAtQuantile(0.999))));
    field("max_ms", jsonNumber(ms(total.latency.max())));
    field("lost", count(lost));
    field("duplicates", count(c.duplicates));
    field("reordered", count(c.reordered));
    field("errors", count(c.errors));
    field("rehandshakes", count(c.rehandshakes));
    field("handshakes_per_s", jsonNumber(measuredHandshakes / duration));
    // A subscriber's deliveries ride on its connect cycles: at low rates each cycle carries
    // about one, and what a cycle costs changes far less with the rate than what a delivery does.
    field("connects_per_s", jsonNumber(c.connects / duration));
    field("deliveries_per_connect", jsonNumber(c.connects ? static_cast<double>(c.delivered) / c.connects : 0));
    if (figures.atMeasureStart && figures.atMeasureEnd && figures.atStart && figures.atEnd) {
        const double cpu = figures.atMeasureEnd->cpuSeconds - figures.atMeasureStart->cpuSeconds;
        field("server_cpu_s", jsonNumber(cpu));
        field("server_cpu_pct", jsonNumber(100 * cpu / duration));
        field("server_cpu_us_per_delivery", jsonNumber(c.delivered ? 1e6 * cpu / c.delivered : 0));
        field("server_cpu_us_per_connect", jsonNumber(c.connects ? 1e6 * cpu / c.connects : 0));
        field("server_rss_start_kb", std::to_string(figures.atStart->rssKb));
        field("server_rss_end_kb", std::to_string(figures.atMeasureEnd->rssKb));
        field("server_peak_rss_kb", std::to_string(figures.atEnd->peakRssKb));
    }
    if (!figures.rss.empty()) {
        std::string samples;
        for (const auto& [second, kb] : figures.rss) {
            samples += (samples.empty() ? "[" : ",") + std::to_string(kb);
        }
        field("server_rss_samples_kb", samples + "]");
        field("server_rss_every_s", jsonNumber(options.rssEverySeconds));
        const std::optional<double> drift = rssDriftPercent(figures.rss, options.duration);
        field("server_rss_drift_pct", drift ? jsonNumber(*drift) : "null");
    }
    const double toolCpu = figures.toolCpuAtMeasureEnd - figures.toolCpuAtMeasureStart;
    field("tool_cpu_s", jsonNumber(toolCpu));
    field("tool_cpu_us_per_delivery", jsonNumber(c.delivered ? 1e6 * toolCpu / c.delivered : 0));
    out << "}";
    std::cout << out.str() << std::endl;
}

std::optional<ProcessSample> sampleServer(const LoadOptions& options) {
    return options.serverPid ? sampleProcess(options.serverPid) : std::nullopt;
}

// Every --rss-every seconds of the measured time, from its start to its end.
void sampleRss(const LoadOptions& options, std::int64_t tick, std::int64_t measureTicks, RunFigures& figures) {
    const auto every = static_cast<std::int64_t>(std::llround(options.rssEverySeconds));
    if (every <= 0 || tick < 0 || tick > measureTicks || (tick % every != 0 && tick != measureTicks)) {
        return;
    }
    if (const std::optional<ProcessSample> sample = sampleServer(options)) {
        figures.rss.emplace_back(tick, sample->rssKb);
        std::cerr << "korvane-load: rss     t=" << tick << "s " << sample->rssKb << " kB" << std::endl;
    }
}

int run(const LoadOptions& options) {
    const ServerUrl server = parseServerUrl(options.url);
    RunPlan plan(options.rooms, options.publishers + options.churn);
    plan.payloadBytes = options.payload;
    plan.publishIntervalMicros =
        options.publishers ? static_cast<std::int64_t>(1e6 * options.publishers / options.rate) : 0;

    RunFigures runFigures;
    runFigures.atStart = sampleServer(options);
    std::vector<std::unique_ptr<Worker>> workers;
    for (std::size_t i = 0; i < options.threads; ++i) {
        workers.push_back(std::make_unique<Worker>());
    }
    createClients(options, server, plan, workers);
    for (auto& worker : workers) {
        worker->thread = std::thread([&io = worker->io] { io.run(); });
    }
    const std::size_t wanted = options.clients + options.publishers;
    const std::int64_t clientsUp = setUp(options, workers);
    std::uint64_t setupShortfall = clientsUp < static_cast<std::int64_t>(wanted) ? wanted - clientsUp : 0;

    // Ticks fall on whole seconds from the start of the measured time.
    const std::int64_t warmupTicks = static_cast<std::int64_t>(std::ceil(options.warmup));
    const std::int64_t measureTicks = static_cast<std::int64_t>(std::ceil(options.duration));
    const std::int64_t graceTicks = static_cast<std::int64_t>(std::ceil(options.grace));
    const std::int64_t publishStart = nowMicros() + 100000;
    const std::int64_t measureStart = publishStart + static_cast<std::int64_t>(options.warmup * 1e6);
    plan.publishStart = publishStart;
    plan.measureStart = measureStart;
    plan.measureEnd = measureStart + static_cast<std::int64_t>(options.duration * 1e6);
    takeSecond(workers);
    startPublishing(workers);

    std::vector<SecondPoint> series;
    StatsSnapshot measured;
    std::uint64_t measuredHandshakes = 0;
    for (std::int64_t tick = 1 - warmupTicks; tick <= measureTicks + graceTicks; ++tick) {
        if (tick == 1) {
            runFigures.atMeasureStart = sampleServer(options);
            runFigures.toolCpuAtMeasureStart = ownCpuSeconds();
        }
        sleepUntil(measureStart + tick * 1000000);
        if (tick == measureTicks + 1) {
            runFigures.atMeasureEnd = sampleServer(options);
            runFigures.toolCpuAtMeasureEnd = ownCpuSeconds();
        }
        sampleRss(options, tick, measureTicks, runFigures);
        const StatsSnapshot second = takeSecond(workers);
        if (tick >= 1 && tick <= measureTicks) {
            measuredHandshakes += second.counters.handshakes;
        }
        const char* phase = tick <= 0 ? "warmup" : tick <= measureTicks ? "measure" : "grace";
        printProgress(phase, static_cast<double>(tick), second, wanted);
        series.push_back({static_cast<double>(tick), static_cast<double>(second.counters.sent),
                          static_cast<double>(second.counters.delivered), ms(second.latency.valueAtQuantile(0.5)),
                          ms(second.latency.valueAtQuantile(0.99)), ms(second.latency.max())});
    }
    if (!runFigures.atMeasureStart) {
        runFigures.atMeasureStart = runFigures.atStart;
    }
    if (!runFigures.atMeasureEnd) {
        runFigures.atMeasureEnd = sampleServer(options);
        runFigures.toolCpuAtMeasureEnd = ownCpuSeconds();
    }
    StatsSnapshot total = takeTotal(workers);
    runFigures.atEnd = sampleServer(options);
    total.counters.errors += setupShortfall;
    for (auto& worker : workers) {
        worker->io.stop();
        worker->thread.join();
    }
    const std::uint64_t lost =
        total.counters.expected > total.counters.delivered ? total.counters.expected - total.counters.delivered : 0;
    printResults(options, total, clientsUp, measuredHandshakes, runFigures, lost);
    if (!options.plot.empty()) {
        writePlot(options.plot, series, total.latency);
    }
    const LoadCounters& c = total.counters;
    const bool faulty = lost != 0 || c.duplicates != 0 || c.reordered != 0 || c.errors != 0;
    return options.check && faulty ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
    LoadOptions options;
    try {
        options = parseLoadOptions(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "korvane-load: " << error.what() << " (see --help)\n";
        return 2;
    }
    try {
        return run(options);
    } catch (const std::exception& error) {
        std::cerr << "korvane-load: " << error.what() << "\n";
        return 2;
    }
}
