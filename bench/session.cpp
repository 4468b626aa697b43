// Fan-out cost on the session side: one publish reaching many long-poll sessions that
// have no open connect (the message is copied into each session's pending list), and a
// local session handing one message to many subscriptions.

#include <benchmark/benchmark.h>

#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "korvane/frame/data_buffer.h"
#include "korvane/frame/future.h"
#include "korvane/frame/manual_timer_backend.h"
#include "korvane/frame/reactive_streams.h"
#include "korvane/routing/bayeux_queue.h"
#include "korvane/routing/bayeux_server.h"
#include "korvane/session/local_session.h"
#include "korvane/session/long_poll_session.h"
#include "bench/bench_support.h"

namespace {

using namespace korvane;
using namespace korvane::bayeux;

constexpr int longPollSessionCount = 10000;
constexpr int localSubscriptionCount = 1000;

std::unique_ptr<PublishRequest> makeMessage() {
    auto message = std::make_unique<PublishRequest>("/bench/x");
    message->data = std::make_shared<common::DataBuffer>("{\"price\":101.25,\"size\":300}");
    message->clientId = "publisher";
    return message;
}

using bench::Sink;

// Sessions that match the benchmark channel, one in `matchEvery`; the others hold an unrelated pattern.
struct LongPollFleet {
    explicit LongPollFleet(int matchEvery) {
        common::installTimerBackend(std::make_shared<common::ManualTimerBackend>());
        for (int i = 0; i < longPollSessionCount; ++i) {
            auto session = std::make_shared<LongPollSession>(server, nullptr);
            session->subscribe(i % matchEvery == 0 ? "/bench/*" : "/other/*");
            server->addSession(session);
            sessions.push_back(std::move(session));
        }
        reached = (longPollSessionCount + matchEvery - 1) / matchEvery;
    }
    // Empties every pending list with a short poll taken in full, as a returning client would; the
    // poll's queue then ends and leaves its session.
    void drain() {
        for (const auto& session : sessions) {
            session->korvaneShortPoll("drain")->subscribe(std::make_shared<Sink<std::unique_ptr<Message>>>());
        }
    }

    std::shared_ptr<BayeuxServerImpl> server = std::make_shared<BayeuxServerImpl>();
    std::vector<std::shared_ptr<LongPollSession>> sessions;
    int reached = 0;
};

void runFanOut(benchmark::State& state, int matchEvery) {
    LongPollFleet fleet(matchEvery);
    for (auto _ : state) {
        fleet.server->deliver(makeMessage());
        state.PauseTiming();
        fleet.drain();
        state.ResumeTiming();
    }
    state.counters["per_session_reached"] =
        benchmark::Counter(fleet.reached, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    state.counters["sessions_reached"] = fleet.reached;
}

void BM_LongPollFanOutAllMatch(benchmark::State& state) { runFanOut(state, 1); }
void BM_LongPollFanOutOneInTenMatch(benchmark::State& state) { runFanOut(state, 10); }

void BM_LocalSessionDelivery(benchmark::State& state) {
    auto server = std::make_shared<BayeuxServerImpl>();
    auto session = std::make_shared<LocalBayeuxSession>(server, nullptr);
    std::vector<std::shared_ptr<reactive_streams::PublisherAPI<std::shared_ptr<const PublishRequest>>>> streams;
    for (int i = 0; i < localSubscriptionCount; ++i) {
        streams.push_back(session->subscribe("/bench/*"));
        streams.back()->subscribe(std::make_shared<Sink<std::shared_ptr<const PublishRequest>>>());
    }
    const std::vector<std::string> segments{"bench", "x"};
    const std::shared_ptr<const PublishRequest> message(makeMessage());
    for (auto _ : state) {
        session->deliver(segments, message);
    }
    state.counters["per_subscription_reached"] = benchmark::Counter(
        localSubscriptionCount, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

BENCHMARK(BM_LongPollFanOutAllMatch)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LongPollFanOutOneInTenMatch)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LocalSessionDelivery)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
