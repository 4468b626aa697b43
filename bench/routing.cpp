// Throughput of the routing core: messages through one BayeuxQueue, and the
// fan-out of one publish to many sessions.

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "korvane/codec/channel.h"
#include "korvane/codec/messages.h"
#include "korvane/routing/bayeux_queue.h"
#include "korvane/routing/bayeux_server.h"

namespace {

using korvane::Future;
using korvane::Message;
using korvane::bayeux::BayeuxQueue;
using korvane::bayeux::BayeuxServerImpl;
using korvane::bayeux::BayeuxSession;
using korvane::bayeux::Channel;
using korvane::bayeux::PublishRequest;
using korvane::bayeux::SubscribeRequest;
using korvane::bayeux::UnsubscribeRequest;

constexpr long queueMessages = 1000000;
constexpr unsigned long requestBatch = 16;

// Asks for 16 messages at a time, the next 16 from inside the 16th onNext.
class BatchingSubscriber : public BayeuxQueue::Subscriber {
public:
    void onSubscribe(std::weak_ptr<korvane::reactive_streams::Subscription> handed) override {
        subscription = handed.lock();
        subscription->request(requestBatch);
    }
    void onNext(std::unique_ptr<Message>&& value) override {
        benchmark::DoNotOptimize(value.get());
        if (++received % requestBatch == 0) {
            subscription->request(requestBatch);
        }
    }
    void onError(std::exception_ptr) override {}
    void onComplete() override {}
    Future<bool> getFuture() override { return korvane::makeReadyFuture(true); }

    std::shared_ptr<korvane::reactive_streams::Subscription> subscription;
    unsigned long received = 0;
};

std::vector<std::unique_ptr<Message>> makeMessages() {
    std::vector<std::unique_ptr<Message>> messages;
    messages.reserve(queueMessages);
    for (long i = 0; i < queueMessages; ++i) {
        messages.push_back(std::make_unique<PublishRequest>("/bench"));
    }
    return messages;
}

void setPerMessageCounter(benchmark::State& state, long perIteration) {
    state.SetItemsProcessed(state.iterations() * perIteration);
    state.counters["per_message"] = benchmark::Counter(static_cast<double>(state.iterations() * perIteration),
                                                       benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// Each push finds demand waiting and is drained at once by the pushing thread.
void BM_QueuePushWhileSubscribed(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        auto messages = makeMessages();
        auto queue = std::make_shared<BayeuxQueue>("bench");
        auto subscriber = std::make_shared<BatchingSubscriber>();
        queue->subscribe(subscriber);
        state.ResumeTiming();
        for (auto& message : messages) {
            queue->setValue(std::move(message));
        }
        queue->done();
        benchmark::DoNotOptimize(subscriber->received);
    }
    setPerMessageCounter(state, queueMessages);
}
BENCHMARK(BM_QueuePushWhileSubscribed)->Unit(benchmark::kMillisecond);

// Everything is buffered first, then one subscribe drains the FIFO 16 at a time.
void BM_QueueBufferThenDrain(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        auto messages = makeMessages();
        auto queue = std::make_shared<BayeuxQueue>("bench");
        auto subscriber = std::make_shared<BatchingSubscriber>();
        state.ResumeTiming();
        for (auto& message : messages) {
            queue->setValue(std::move(message));
        }
        queue->doneWhenEmpty();
        queue->subscribe(subscriber);
        benchmark::DoNotOptimize(subscriber->received);
    }
    setPerMessageCounter(state, queueMessages);
}
BENCHMARK(BM_QueueBufferThenDrain)->Unit(benchmark::kMillisecond);

// The least a session can do: match by its Channel and count.
class MatchingSession : public BayeuxSession {
public:
    explicit MatchingSession(const std::string& pattern) { channel.pushPattern(pattern); }
    std::shared_ptr<korvane::Context> getContext() const override { return nullptr; }
    std::string getId() const override { return id; }
    void deliver(const std::vector<std::string>& segments,
                 const std::shared_ptr<const PublishRequest>&) override {
        if (channel.channelMatches(segments)) {
            ++matched;
        }
    }
    void deliver(const std::shared_ptr<const SubscribeRequest>&) override {}
    void deliver(const std::shared_ptr<const UnsubscribeRequest>&) override {}

    Channel channel;
    std::string id = "session";
    long matched = 0;
};

// Argument: every n-th session matches the published channel.
void BM_ServerFanOut(benchmark::State& state) {
    constexpr int sessionCount = 10000;
    const long matchEvery = state.range(0);
    auto server = std::make_shared<BayeuxServerImpl>();
    std::vector<std::shared_ptr<MatchingSession>> sessions;
    sessions.reserve(sessionCount);
    for (int i = 0; i < sessionCount; ++i) {
        const std::string pattern = i % matchEvery == 0 ? "/bench/hot" : "/bench/cold/" + std::to_string(i);
        sessions.push_back(std::make_shared<MatchingSession>(pattern));
        server->addSession(sessions.back());
    }
    auto request = std::make_shared<PublishRequest>("/bench/hot");
    request->clientId = "publisher";
    request->data = std::make_shared<korvane::common::DataBuffer>();
    std::shared_ptr<const PublishRequest> shared = request;
    for (auto _ : state) {
        std::shared_ptr<const PublishRequest> copy = shared;
        benchmark::DoNotOptimize(server->deliver(std::move(copy)));
    }
    state.counters["per_session"] = benchmark::Counter(static_cast<double>(state.iterations() * sessionCount),
                                                       benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    long matched = 0;
    for (const auto& session : sessions) {
        matched += session->matched;
    }
    state.counters["matched"] = static_cast<double>(matched) / static_cast<double>(state.iterations());
}
BENCHMARK(BM_ServerFanOut)->Arg(1)->Arg(10)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
