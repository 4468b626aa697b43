#include "korvane/session/long_poll_session.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "korvane/frame/manual_timer_backend.h"
#include "korvane/routing/bayeux_queue.h"
#include "korvane/routing/bayeux_server.h"
#include "session/session_test_support.h"

namespace korvane::bayeux {
namespace {

using namespace std::chrono_literals;
using testing::StreamRecorder;
using testing::makePublish;

constexpr int publisherCount = 3;
constexpr int messagesPerPublisher = 600;
constexpr int clientCount = 4;
constexpr int sessionsPerClient = 4;

// One session's life as its client saw it: every stream it opened, oldest first.
struct SessionLife {
    std::shared_ptr<LongPollSession> session;
    std::vector<std::shared_ptr<StreamRecorder>> streams;
};

std::shared_ptr<LongPollSession> openSession(const std::shared_ptr<BayeuxServerImpl>& server) {
    auto session = std::make_shared<LongPollSession>(server, nullptr);
    EXPECT_TRUE(session->subscribe("/load/*"));
    server->addSession(session);
    return session;
}

void watch(SessionLife& life, const std::shared_ptr<BayeuxQueue>& queue) {
    auto recorder = std::make_shared<StreamRecorder>();
    queue->subscribe(recorder);
    life.streams.push_back(recorder);
}

// Reads "publisher:sequence" items, in stream order, into one sequence per publisher.
std::map<int, std::vector<int>> sequencesPerPublisher(const SessionLife& life) {
    std::map<int, std::vector<int>> sequences;
    for (const auto& stream : life.streams) {
        for (const auto& item : stream->take()) {
            auto publish = dynamic_cast<const PublishRequest*>(item.get());
            if (publish != nullptr) {
                const std::string text = publish->data->str();
                const std::size_t colon = text.find(':');
                sequences[std::stoi(text.substr(0, colon))].push_back(std::stoi(text.substr(colon + 1)));
            }
        }
    }
    return sequences;
}

// Publishes run while a client adds, drops and reconnects its sessions, and a timer thread moves the clock.
TEST(LongPollSessionConcurrency, EveryAcceptedMessageReachesTheStreamsOnceAndInOrder) {
    auto timers = std::make_shared<common::ManualTimerBackend>();
    auto previousBackend = common::installTimerBackend(timers);
    auto server = std::make_shared<BayeuxServerImpl>();
    std::atomic<bool> stop{false};

    std::vector<std::vector<SessionLife>> lives(clientCount);
    for (auto& client : lives) {
        for (int i = 0; i < sessionsPerClient; ++i) {
            client.push_back(SessionLife{openSession(server), {}});
        }
    }

    std::thread timerThread([&] {
        while (!stop.load()) {
            timers->advance(1ms);
            std::this_thread::yield();
        }
    });
    std::atomic<int> publishersDone{0};
    std::vector<std::thread> publishers;
    for (int p = 0; p < publisherCount; ++p) {
        publishers.emplace_back([&, p] {
            for (int sequence = 0; sequence < messagesPerPublisher; ++sequence) {
                const std::string text = std::to_string(p) + ":" + std::to_string(sequence);
                EXPECT_TRUE(server->deliver(makePublish("/load/" + std::to_string(p), text)));
                if (sequence % 16 == 0) {
                    std::this_thread::sleep_for(50us);
                }
            }
            ++publishersDone;
        });
    }
    std::vector<std::vector<SessionLife>> finished(clientCount);
    std::vector<std::thread> clients;
    for (int c = 0; c < clientCount; ++c) {
        clients.emplace_back([&, c] {
            std::mt19937 random(static_cast<unsigned>(c));
            int connects = 0;
            while (publishersDone.load() < publisherCount) {
                SessionLife& life = lives[c][random() % sessionsPerClient];
                if (random() % 12 == 0) {
                    finished[c].push_back(std::move(life));
                    finished[c].back().session.reset();
                    life = SessionLife{openSession(server), {}};
                } else {
                    const std::string messageId = std::to_string(++connects);
                    watch(life, life.session->connectStream(messageId, 1 + random() % 2, true, true));
                }
                std::this_thread::sleep_for(std::chrono::microseconds(100 + random() % 300));
            }
        });
    }
    for (auto& thread : publishers) {
        thread.join();
    }
    for (auto& thread : clients) {
        thread.join();
    }
    stop = true;
    timerThread.join();

    for (int c = 0; c < clientCount; ++c) {
        for (auto& life : lives[c]) {
            // What is still pending in the session comes out with a last poll.
            watch(life, life.session->korvaneShortPoll("final"));
            for (const auto& stream : life.streams) {
                EXPECT_EQ(stream->completionCount(), 1) << "every connect of a live session has been answered";
            }
            for (const auto& [publisher, sequence] : sequencesPerPublisher(life)) {
                SCOPED_TRACE("publisher " + std::to_string(publisher));
                ASSERT_FALSE(sequence.empty());
                EXPECT_EQ(sequence.back(), messagesPerPublisher - 1) << "a live session misses nothing at the end";
                for (std::size_t i = 1; i < sequence.size(); ++i) {
                    ASSERT_EQ(sequence[i], sequence[i - 1] + 1) << "each message once, in order, no gap";
                }
            }
        }
        for (auto& life : finished[c]) {
            // A dropped session may lose only what was pending when it died: a tail.
            for (const auto& [publisher, sequence] : sequencesPerPublisher(life)) {
                for (std::size_t i = 1; i < sequence.size(); ++i) {
                    ASSERT_EQ(sequence[i], sequence[i - 1] + 1) << "each message once, in order, no gap";
                }
            }
        }
    }
    lives.clear();
    finished.clear();
    EXPECT_EQ(timers->armedCount(), 0u);
    common::installTimerBackend(previousBackend);
}

}  // namespace
}  // namespace korvane::bayeux
