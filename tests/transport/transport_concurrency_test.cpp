// WebSocket and long-poll clients on real threads publish to one another through the
// whole server side in memory, while a clock thread drives the batching and hold
// timers: every message reaches every other client once, in its publisher's order.

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <regex>
#include <thread>

#include "transport/transport_test_support.h"

namespace korvane::bayeux::testing {
namespace {

constexpr int messagesPerClient = 40;
constexpr auto deadline = std::chrono::seconds(60);

// What one client received: the sequence numbers of each publisher, in arrival order.
class Inbox {
public:
    void take(const std::string& text) {
        static const std::regex delivery(R"re("data":\{"from":"(\w+)","seq":(\d+)\})re");
        std::lock_guard<std::mutex> guard(mutex);
        for (std::sregex_iterator it(text.begin(), text.end(), delivery), end; it != end; ++it) {
            bySender[(*it)[1]].push_back(std::stoi((*it)[2]));
        }
    }
    std::size_t count() {
        std::lock_guard<std::mutex> guard(mutex);
        std::size_t total = 0;
        for (const auto& entry : bySender) {
            total += entry.second.size();
        }
        return total;
    }
    std::map<std::string, std::vector<int>> received() {
        std::lock_guard<std::mutex> guard(mutex);
        return bySender;
    }

private:
    std::mutex mutex;
    std::map<std::string, std::vector<int>> bySender;
};

std::string publishOf(const std::string& name, int seq) {
    return R"({"channel":"/room","data":{"from":")" + name + R"(","seq":)" + std::to_string(seq) + "}}";
}

class TransportConcurrency : public TransportFixture {
protected:
    // One WebSocket client: this thread alone feeds its socket, reconnecting after each
    // connect reply and publishing in between.
    void runWebSocketClient(const std::string& name, Inbox& inbox, std::size_t expected) {
        std::mutex mutex;
        std::condition_variable wake;
        bool reconnect = false;
        Socket socket = upgrade(browser(name), [&](const std::string& frame) {
            inbox.take(frame);
            if (frame.find("\"/meta/connect\"") != std::string::npos) {
                std::lock_guard<std::mutex> guard(mutex);
                reconnect = true;
                wake.notify_all();
            }
        });
        socket.send(R"({"channel":"/meta/handshake"})");
        socket.send(R"({"channel":"/meta/subscribe","subscription":"/room"})");
        ready.fetch_add(1);
        while (ready.load() < clients) {
            std::this_thread::yield();
        }
        socket.send(R"({"channel":"/meta/connect","advice":{"timeout":1000}})");
        const auto stop = std::chrono::steady_clock::now() + deadline;
        for (int seq = 0; inbox.count() < expected || seq < messagesPerClient;) {
            if (std::chrono::steady_clock::now() > stop) {
                break;
            }
            bool connectNow = false;
            {
                std::unique_lock<std::mutex> guard(mutex);
                if (!reconnect && seq == messagesPerClient) {
                    wake.wait_for(guard, std::chrono::milliseconds(5));
                }
                connectNow = std::exchange(reconnect, false);
            }
            if (connectNow) {
                socket.send(R"({"channel":"/meta/connect","advice":{"timeout":1000}})");
            } else if (seq < messagesPerClient) {
                socket.send(publishOf(name, seq++));
            }
        }
        socket.written->cancel();
    }

    // One long-poll client: a connect loop on this thread, publishes from a second one.
    void runLongPollClient(const std::string& name, Inbox& inbox, std::size_t expected) {
        std::shared_ptr<Context> context = browser(name);
        const std::string id = handshake(context);
        post(R"({"channel":"/meta/subscribe","subscription":"/room","clientId":")" + id + R"("})", context);
        ready.fetch_add(1);
        while (ready.load() < clients) {
            std::this_thread::yield();
        }
        std::thread publisher([&] {
            for (int seq = 0; seq < messagesPerClient; ++seq) {
                std::string message = publishOf(name, seq);
                message.insert(1, R"("clientId":")" + id + R"(",)");
                post(message, context);
            }
        });
        const auto stop = std::chrono::steady_clock::now() + deadline;
        while (inbox.count() < expected && std::chrono::steady_clock::now() < stop) {
            Answer held = post(R"({"channel":"/meta/connect","clientId":")" + id + R"(","advice":{"timeout":1000}})",
                               context);
            held.body->waitFor([](BodyRecorder& body) { return body.completionCount() > 0; }, deadline);
            inbox.take(held.body->joined());
        }
        publisher.join();
    }

    std::atomic<int> ready{0};
    int clients = 0;
};

TEST_F(TransportConcurrency, EveryMessageReachesEveryOtherClientOnceInOrderOverBothTransports) {
    const std::vector<std::string> webSocketClients = {"ws0", "ws1", "ws2"};
    const std::vector<std::string> longPollClients = {"lp0", "lp1", "lp2"};
    clients = static_cast<int>(webSocketClients.size() + longPollClients.size());
    const std::size_t expected = static_cast<std::size_t>((clients - 1) * messagesPerClient);
    // Every inbox exists before the threads start, so the map itself is only read.
    std::map<std::string, Inbox> inboxes;
    for (const auto* names : {&webSocketClients, &longPollClients}) {
        for (const std::string& name : *names) {
            inboxes[name];
        }
    }

    std::atomic<bool> running{true};
    // The clock never runs ahead of real time, so that a client starved of CPU (under a
    // sanitizer, on a busy machine) is not swept for silence in the middle of the run.
    std::thread ticker([&] {
        while (running.load()) {
            clock->advance(1ms);
            std::this_thread::sleep_for(1ms);
        }
    });
    std::vector<std::thread> threads;
    for (const std::string& name : webSocketClients) {
        threads.emplace_back([&, name] { runWebSocketClient(name, inboxes.at(name), expected); });
    }
    for (const std::string& name : longPollClients) {
        threads.emplace_back([&, name] { runLongPollClient(name, inboxes.at(name), expected); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    running = false;
    ticker.join();

    std::vector<int> inOrder(messagesPerClient);
    for (int seq = 0; seq < messagesPerClient; ++seq) {
        inOrder[seq] = seq;
    }
    for (auto& [receiver, inbox] : inboxes) {
        const auto received = inbox.received();
        for (const auto& [sender, unused] : inboxes) {
            auto found = received.find(sender);
            if (sender == receiver) {
                EXPECT_EQ(found, received.end()) << receiver << " received its own messages";
            } else {
                EXPECT_EQ(found == received.end() ? std::vector<int>() : found->second, inOrder)
                    << receiver << " from " << sender;
            }
        }
    }
}

}  // namespace
}  // namespace korvane::bayeux::testing
