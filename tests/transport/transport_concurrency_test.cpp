// WebSocket clients on real threads publish to one another through the whole server side in
// memory, each socket fed by its own thread and written by the others' publishes, while a clock
// thread drives the batching and hold timers: every message reaches every other client once,
// in its publisher's order.

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <numeric>
#include <regex>
#include <thread>

#include "transport/transport_test_support.h"

namespace korvane::bayeux::testing {
namespace {

constexpr int messagesPerClient = 40;
constexpr auto deadline = std::chrono::seconds(60);
const std::string connectFrame = R"({"channel":"/meta/connect","advice":{"timeout":1000}})";

// What one client received: the sequence numbers of each publisher, in arrival order.
class Inbox {
public:
    void take(const std::string& text) {
        static const std::regex delivery(R"re("data":\{"from":"(\w+)","seq":(\d+)\})re");
        const std::lock_guard<std::mutex> guard(mutex);
        for (std::sregex_iterator it(text.begin(), text.end(), delivery), end; it != end; ++it) {
            bySender[(*it)[1]].push_back(std::stoi((*it)[2]));
            ++total;
        }
    }
    std::size_t count() { return std::lock_guard<std::mutex>(mutex), total; }

    std::mutex mutex;
    std::map<std::string, std::vector<int>> bySender;
    std::size_t total = 0;
};

std::string publishOf(const std::string& name, int seq) {
    return R"({"channel":"/room","data":{"from":")" + name + R"(","seq":)" + std::to_string(seq) + "}}";
}

class TransportConcurrency : public TransportFixture {
protected:
    // One WebSocket client: this thread alone feeds its socket, connecting again after each
    // connect reply and publishing in between.
    void runWebSocketClient(const std::string& name, Inbox& inbox, std::size_t expected) {
        std::atomic<bool> reconnect{false};
        Socket socket = upgrade(browser(name));
        socket.written->onItem = [&](const http::WebSocketFrame& frame) {
            inbox.take(frame.data.str());
            reconnect = reconnect || frame.data.str().find("\"/meta/connect\"") != std::string::npos;
        };
        socket.send(R"({"channel":"/meta/handshake"})");
        socket.send(R"({"channel":"/meta/subscribe","subscription":"/room"})");
        for (ready.fetch_add(1); ready.load() < clients;) {
            std::this_thread::yield();
        }
        socket.send(connectFrame);
        const auto stop = std::chrono::steady_clock::now() + deadline;
        for (int seq = 0; (inbox.count() < expected || seq < messagesPerClient) && std::chrono::steady_clock::now() < stop;) {
            if (reconnect.exchange(false)) {
                socket.send(connectFrame);
            } else if (seq < messagesPerClient) {
                socket.send(publishOf(name, seq++));
            } else {
                std::this_thread::sleep_for(1ms);
            }
        }
        socket.written->cancel();
    }

    std::atomic<int> ready{0};
    const int clients = 4;
};

TEST_F(TransportConcurrency, EveryMessageReachesEveryOtherWebSocketClientOnceInOrder) {
    const std::size_t expected = (clients - 1) * messagesPerClient;
    // Every inbox exists before the threads start, so the map itself is only read.
    std::map<std::string, Inbox> inboxes;
    std::atomic<bool> running{true};
    // The clock never runs ahead of real time, so that a client starved of CPU (under a
    // sanitizer, on a busy machine) is not swept for silence in the middle of the run.
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        while (running.load()) {
            clock->advance(1ms);
            std::this_thread::sleep_for(1ms);
        }
    });
    for (const std::string name : {"ws0", "ws1", "ws2", "ws3"}) {
        inboxes[name];
    }
    for (auto& [name, inbox] : inboxes) {
        threads.emplace_back([&, name = name] { runWebSocketClient(name, inbox, expected); });
    }
    for (std::size_t i = 1; i < threads.size(); ++i) {
        threads[i].join();
    }
    running = false;
    threads[0].join();
    std::vector<int> inOrder(messagesPerClient);
    std::iota(inOrder.begin(), inOrder.end(), 0);
    for (auto& [receiver, inbox] : inboxes) {
        for (const auto& [sender, unused] : inboxes) {
            const auto found = inbox.bySender.find(sender);
            EXPECT_EQ(found == inbox.bySender.end() ? std::vector<int>() : found->second,
                      sender == receiver ? std::vector<int>() : inOrder)
                << receiver << " from " << sender;
        }
    }
}

}  // namespace
}  // namespace korvane::bayeux::testing
