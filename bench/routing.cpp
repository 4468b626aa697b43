// Throughput of the routing core: messages through one BayeuxQueue, the fan-out of
// one publish to many sessions, and what a publish to one room, a session's arrival
// and departure and a subscribe cost among many long-poll sessions on other rooms.

#include <benchmark/benchmark.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "korvane/codec/channel.h"
#include "korvane/codec/messages.h"
#include "korvane/frame/manual_timer_backend.h"
#include "korvane/routing/bayeux_queue.h"
#include "korvane/routing/bayeux_server.h"
#include "korvane/service/bayeux_service_provider.h"
#include "korvane/session/long_poll_session.h"

namespace {

using korvane::Future;
using korvane::Message;
using korvane::Address;
using korvane::Context;
using korvane::bayeux::BayeuxQueue;
using korvane::bayeux::BayeuxServerImpl;
using korvane::bayeux::BayeuxServiceProviderImpl;
using korvane::bayeux::LongPollSession;
using korvane::bayeux::UnsubscribeResponse;
using korvane::bayeux::SubscribeResponse;
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

constexpr int roomSize = 100;

// A request context that routes nowhere.
class QuietContext : public Context {
public:
    korvane::Future<std::unique_ptr<Message>> handle(std::unique_ptr<Message>&&, Address&&) override {
        return korvane::makeReadyFuture(std::unique_ptr<Message>());
    }
};

// Long-poll clients made by the protocol service, `roomSize` of them on each room
// "/room/<n>", none with a connect open. Built once per size and kept for every
// benchmark of that size: building is what the benchmarks below measure one step of.
struct RoomFleet {
    explicit RoomFleet(int sessionCount) {
        provider->start();
        std::shared_ptr<Context> context = std::make_shared<QuietContext>();
        sessions.reserve(sessionCount);
        for (int i = 0; i < sessionCount; ++i) {
            sessions.push_back(provider->createSession("browser", context));
            sessions.back()->subscribe(roomOf(i));
        }
    }
    static RoomFleet& ofSize(int sessionCount) {
        static std::map<int, std::unique_ptr<RoomFleet>> fleets;
        std::unique_ptr<RoomFleet>& fleet = fleets[sessionCount];
        if (!fleet) {
            // The protocol service's sweep needs a clock before the service is made.
            korvane::common::installTimerBackend(std::make_shared<korvane::common::ManualTimerBackend>());
            fleet = std::make_unique<RoomFleet>(sessionCount);
        }
        return *fleet;
    }
    static std::string roomOf(int sessionIndex) { return "/room/" + std::to_string(sessionIndex / roomSize); }
    // Empties the pending lists of the first room's sessions, as their returning clients would.
    void drainFirstRoom() {
        for (int i = 0; i < roomSize; ++i) {
            sessions[i]->korvaneShortPoll("drain")->subscribe(std::make_shared<DrainingSubscriber>());
        }
    }

    // Takes a whole stream at once and keeps nothing.
    class DrainingSubscriber : public BayeuxQueue::Subscriber {
    public:
        void onSubscribe(std::weak_ptr<korvane::reactive_streams::Subscription> handed) override {
            handed.lock()->request(~0ul);
        }
        void onNext(std::unique_ptr<Message>&&) override {}
        void onError(std::exception_ptr) override {}
        void onComplete() override {}
        Future<bool> getFuture() override { return korvane::makeReadyFuture(true); }
    };

    std::shared_ptr<BayeuxServerImpl> server = std::make_shared<BayeuxServerImpl>();
    std::shared_ptr<BayeuxServiceProviderImpl> provider = std::make_shared<BayeuxServiceProviderImpl>(server);
    std::vector<std::shared_ptr<LongPollSession>> sessions;
};

// Argument: sessions in all. One publish reaches the 100 sessions of the first room.
void BM_PublishToRoom(benchmark::State& state) {
    RoomFleet& fleet = RoomFleet::ofSize(static_cast<int>(state.range(0)));
    constexpr long drainEvery = 256;
    long published = 0;
    for (auto _ : state) {
        auto request = std::make_unique<PublishRequest>("/room/0");
        request->clientId = "publisher";
        request->data = std::make_shared<korvane::common::DataBuffer>("{\"text\":\"hi\"}");
        benchmark::DoNotOptimize(fleet.server->deliver(std::move(request)));
        if (++published % drainEvery == 0) {
            state.PauseTiming();
            fleet.drainFirstRoom();
            state.ResumeTiming();
        }
    }
    fleet.drainFirstRoom();
}
BENCHMARK(BM_PublishToRoom)->Arg(1000)->Arg(30000)->Arg(100000)->Unit(benchmark::kMicrosecond);

// Argument: sessions in all. One session joins the routing core and leaves it again;
// the figure is the cost of the pair.
void BM_AddAndRemoveSession(benchmark::State& state) {
    RoomFleet& fleet = RoomFleet::ofSize(static_cast<int>(state.range(0)));
    auto session = std::make_shared<LongPollSession>(fleet.server, nullptr);
    session->subscribe("/room/0");
    for (auto _ : state) {
        fleet.server->addSession(session);
        fleet.server->removeSession(session);
    }
}
BENCHMARK(BM_AddAndRemoveSession)->Arg(1000)->Arg(30000)->Arg(100000)->Unit(benchmark::kMicrosecond);

// Argument: sessions in all. A client is made and registered by the protocol service,
// subscribes to a room, and is dropped again; the figure is the cost of the whole life.
void BM_HandshakeSubscribeDisconnect(benchmark::State& state) {
    RoomFleet& fleet = RoomFleet::ofSize(static_cast<int>(state.range(0)));
    std::shared_ptr<Context> context = std::make_shared<QuietContext>();
    for (auto _ : state) {
        std::shared_ptr<LongPollSession> session = fleet.provider->createSession("browser", context);
        session->subscribe(RoomFleet::roomOf(0));
        fleet.provider->deleteSession(session->getId());
    }
}
BENCHMARK(BM_HandshakeSubscribeDisconnect)->Arg(1000)->Arg(30000)->Arg(100000)->Unit(benchmark::kMicrosecond);

// Argument: sessions in all. A client subscribes to a room through the protocol service
// and unsubscribes again; the figure is the cost of the pair.
void BM_SubscribeThroughService(benchmark::State& state) {
    RoomFleet& fleet = RoomFleet::ofSize(static_cast<int>(state.range(0)));
    const std::string clientId = fleet.sessions.back()->getId();
    const std::string room = RoomFleet::roomOf(0);
    for (auto _ : state) {
        auto subscribed = fleet.provider->handle(std::make_unique<SubscribeRequest>(room, clientId), Address("bayeux"),
                                                 std::shared_ptr<Context>());
        auto unsubscribed = fleet.provider->handle(std::make_unique<UnsubscribeRequest>(room, clientId),
                                                   Address("bayeux"), std::shared_ptr<Context>());
        benchmark::DoNotOptimize(subscribed.get());
        benchmark::DoNotOptimize(unsubscribed.get());
    }
}
BENCHMARK(BM_SubscribeThroughService)->Arg(1000)->Arg(30000)->Arg(100000)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
