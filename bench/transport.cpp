// The transports' cost per request, through the whole server side in memory on the
// reference host's registry and context: a publish POSTed to the long-poll transport
// (body in, JSON array out), a publish frame on a WebSocket (frame in, reply frame
// out), and one publish reaching 1,000 WebSocket connections whose connects are open.

#include <benchmark/benchmark.h>

#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "korvane/bayeux.h"
#include "korvane/host/host.h"
#include "bench/bench_support.h"

namespace {

using namespace korvane;
using namespace korvane::bayeux;

constexpr int fanOutConnections = 1000;
const Address longPollAddress("/bayeux/long-poll");
const Address webSocketAddress("/bayeux/websocket");
const Address dispatchAddress("/bayeux");

using bench::Sink;

using FrameFeed = reactive_streams::CachedValuePublisher<http::WebSocketFrame, std::function<void()>>;

// The services composed as the server composes them, on a manual clock.
struct Server {
    Server() {
        common::installTimerBackend(clock);
        auto protocol = std::make_shared<BayeuxServiceProviderImpl>(std::make_shared<BayeuxServerImpl>());
        registry->add(dispatchAddress, std::make_shared<BayeuxHttpServiceProvider>(longPollAddress, webSocketAddress));
        registry->add(longPollAddress, std::make_shared<BayeuxLongPollServiceProvider>());
        registry->add(longPollAddress, protocol);
        registry->add(webSocketAddress, std::make_shared<BayeuxWebSocketServiceProvider>());
        registry->add(webSocketAddress, protocol);
        registry->startAll();
    }
    ~Server() {
        registry->stopAll();
        common::installTimerBackend(nullptr);
    }

    std::shared_ptr<host::HostContext> context() { return host::HostContext::create(registry); }

    // A POST answered in full; the body's bytes are counted.
    std::size_t post(const std::string& json) {
        auto body = std::make_shared<reactive_streams::OneShotPublisher<common::DataBuffer>>(common::DataBuffer(json));
        auto reply = context()
                         ->handle<http::HttpResponse>(
                             std::make_unique<http::HttpRequest>("post", "/bayeux", http::Headers(), body),
                             Address(dispatchAddress))
                         .get();
        auto sink = std::make_shared<Sink<common::DataBuffer>>();
        reply->body->subscribe(sink);
        return sink->count;
    }

    // An upgraded socket: the feed of frames the host reads, and the sink of frames it writes.
    struct Socket {
        std::shared_ptr<FrameFeed> feed;
        std::shared_ptr<Sink<http::WebSocketFrame>> written;
        void send(const std::string& text) { feed->publish(http::WebSocketFrame(common::DataBuffer(text), 129)); }
    };
    Socket upgrade() {
        auto reply = context()
                         ->handle<http::WebSocket>(std::make_unique<http::HttpRequest>(
                                                       "get", "/bayeux", http::Headers{{"upgrade", "websocket"}}, nullptr),
                                                   Address(dispatchAddress))
                         .get();
        Socket socket{std::make_shared<FrameFeed>(nullptr), std::make_shared<Sink<http::WebSocketFrame>>()};
        reply->inbound->subscribe(socket.written);
        socket.feed->subscribe(reply->outbound);
        return socket;
    }

    std::shared_ptr<common::ManualTimerBackend> clock = std::make_shared<common::ManualTimerBackend>();
    std::shared_ptr<host::ServiceRegistry> registry = std::make_shared<host::ServiceRegistry>();
};

std::string clientIdOf(Server& server) {
    // The handshake's body is read through a string sink of its own.
    auto body = std::make_shared<reactive_streams::OneShotPublisher<common::DataBuffer>>(
        common::DataBuffer(std::string_view(R"({"channel":"/meta/handshake"})")));
    auto reply = server.context()
                     ->handle<http::HttpResponse>(
                         std::make_unique<http::HttpRequest>("post", "/bayeux", http::Headers(), body),
                         Address(dispatchAddress))
                     .get();
    std::string text = reactive_streams::reduce<common::DataBuffer, std::string>(
                           reply->body, [](common::DataBuffer&& chunk, std::string&& all) { return all + chunk.str(); },
                           "")
                           .get();
    const std::string key = "\"clientId\":\"";
    return text.substr(text.find(key) + key.size(), 16);
}

void BM_LongPollPublish(benchmark::State& state) {
    Server server;
    const std::string id = clientIdOf(server);
    const std::string publish =
        R"({"channel":"/bench/room","id":"7","clientId":")" + id + R"(","data":{"price":101.25,"size":300}})";
    for (auto _ : state) {
        benchmark::DoNotOptimize(server.post(publish));
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LongPollPublish);

void BM_WebSocketPublish(benchmark::State& state) {
    Server server;
    Server::Socket socket = server.upgrade();
    socket.send(R"({"channel":"/meta/handshake"})");
    const std::string publish = R"({"channel":"/bench/room","id":"7","data":{"price":101.25,"size":300}})";
    for (auto _ : state) {
        socket.send(publish);
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(socket.written->count) - 1);
}
BENCHMARK(BM_WebSocketPublish);

// Each iteration: one publish, the 5 ms batch, one message frame and one connect reply
// per connection, and each connection's next connect.
void BM_WebSocketFanOut(benchmark::State& state) {
    Server server;
    std::vector<Server::Socket> sockets;
    for (int index = 0; index < fanOutConnections; ++index) {
        sockets.push_back(server.upgrade());
        sockets.back().send(R"({"channel":"/meta/handshake"})");
        sockets.back().send(R"({"channel":"/meta/subscribe","subscription":"/bench/room"})");
        sockets.back().send(R"({"channel":"/meta/connect"})");
    }
    Server::Socket publisher = server.upgrade();
    publisher.send(R"({"channel":"/meta/handshake"})");
    const std::string publish = R"({"channel":"/bench/room","data":{"price":101.25,"size":300}})";
    unsigned long framesBefore = 0;
    for (const auto& socket : sockets) {
        framesBefore += socket.written->count;
    }
    for (auto _ : state) {
        publisher.send(publish);
        server.clock->advance(std::chrono::milliseconds(5));
        for (auto& socket : sockets) {
            socket.send(R"({"channel":"/meta/connect"})");
        }
    }
    unsigned long frames = 0;
    for (const auto& socket : sockets) {
        frames += socket.written->count;
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(frames - framesBefore));
    state.counters["deliveries_per_publish"] =
        static_cast<double>(frames - framesBefore) / 2.0 / static_cast<double>(state.iterations());
}
BENCHMARK(BM_WebSocketFanOut)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
