// WebSocket clients on real threads publish to one another through the whole server side in
// memory, each socket fed by its own thread and written by the others' publishes, while a clock
// thread drives the batching and hold timers: every message reaches every other client once,
// in its publisher's order.

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <numeric>
#include <regex>
#include <thread>

#include "transport/transport_test_support.h"

namespace korvane::bayeux::testing {
namespace {

constexpr int kClients = 4, kMessages = 40;
const std::string connectFrame = R"({"channel":"/meta/connect","advice":{"timeout":1000}})";

// What one client received: the sequence numbers of each publisher, in arrival order.
struct Inbox {
    void take(const std::string& text) {
        static const std::regex delivery(R"re("data":\{"from":(\d),"seq":(\d+)\})re");
        const std::lock_guard<std::mutex> guard(mutex);
        for (std::sregex_iterator it(text.begin(), text.end(), delivery), end; it != end; ++it) {
            bySender[std::stoi((*it)[1])].push_back(std::stoi((*it)[2]));
            ++total;
        }
    }

    std::mutex mutex;
    std::vector<int> bySender[kClients];  // under `mutex`
    std::atomic<int> total{0};
    std::atomic<bool> connectAnswered{false};
};

using TransportConcurrency = TransportFixture;

TEST_F(TransportConcurrency, EveryMessageReachesEveryOtherWebSocketClientOnceInOrder) {
    const int expected = (kClients - 1) * kMessages;
    // The clock thread may still be delivering to a client when that client's thread has returned, and the server
    // may write while the fixture ends: the recorder's callback owns what it touches.
    auto inboxes = std::make_shared<std::array<Inbox, kClients>>();
    std::atomic<int> ready{0};
    // One client: this thread alone feeds its socket, connecting again after each connect reply and publishing in
    // between.
    auto runClient = [&](int me) {
        Inbox& inbox = (*inboxes)[me];
        Socket socket = upgrade(browser("ws" + std::to_string(me)));
        socket.written->onItem = [inboxes, me](const http::WebSocketFrame& frame) {
            Inbox& mine = (*inboxes)[me];
            mine.take(frame.data.str());
            if (frame.data.str().find("\"/meta/connect\"") != std::string::npos) {
                mine.connectAnswered = true;
            }
        };
        socket.send(R"({"channel":"/meta/handshake"})");
        socket.send(R"({"channel":"/meta/subscribe","subscription":"/room"})");
        for (ready.fetch_add(1); ready.load() < kClients;) {
            std::this_thread::yield();
        }
        socket.send(connectFrame);
        const auto stop = std::chrono::steady_clock::now() + 60s;
        for (int seq = 0; (inbox.total < expected || seq < kMessages) && std::chrono::steady_clock::now() < stop;) {
            if (inbox.connectAnswered.exchange(false)) {
                socket.send(connectFrame);
            } else if (seq < kMessages) {
                socket.send(R"({"channel":"/room","data":{"from":)" + std::to_string(me) + R"(,"seq":)" +
                            std::to_string(seq++) + "}}");
            } else {
                std::this_thread::sleep_for(1ms);
            }
        }
        socket.written->cancel();
    };
    std::atomic<bool> running{true};
    // The clock never runs ahead of real time, so that a client starved of CPU (under a
    // sanitizer, on a busy machine) is not swept for silence in the middle of the run.
    std::thread clockThread([&] {
        while (running.load()) {
            clock->advance(1ms);
            std::this_thread::sleep_for(1ms);
        }
    });
    test_support::onThreads(kClients, runClient);
    running = false;
    clockThread.join();
    std::vector<int> inOrder(kMessages);
    std::iota(inOrder.begin(), inOrder.end(), 0);
    for (int receiver = 0; receiver < kClients; ++receiver) {
        for (int sender = 0; sender < kClients; ++sender) {
            EXPECT_EQ((*inboxes)[receiver].bySender[sender], sender == receiver ? std::vector<int>() : inOrder)
                << receiver << " from " << sender;
        }
    }
}

}  // namespace
}  // namespace korvane::bayeux::testing
