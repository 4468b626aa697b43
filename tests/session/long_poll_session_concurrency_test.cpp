#include "korvane/session/long_poll_session.h"

#include <atomic>
#include <map>
#include <random>
#include <thread>

#include "session/session_test_support.h"

namespace korvane::bayeux::testing {
namespace {

constexpr int publisherCount = 3, messagesPerPublisher = 600, clientCount = 4, sessionsPerClient = 4;

// One session's life as its client saw it: every stream it opened, oldest first.
struct SessionLife {
    std::shared_ptr<LongPollSession> session;
    std::vector<std::shared_ptr<StreamRecorder>> streams;
};

SessionLife openSession(const std::shared_ptr<BayeuxServerImpl>& server) {
    auto session = std::make_shared<LongPollSession>(server, nullptr);
    EXPECT_TRUE(session->subscribe("/load/*"));
    server->addSession(session);
    return SessionLife{session, {}};
}

// The "publisher/sequence" messages of all streams, in stream order, hold each publisher's
// messages once, in order, without a gap. A live session has every connect answered and
// misses nothing at the end; a dropped one may lose only what was pending when it died: a tail.
// A session there from the start has every message.
void expectGaplessSequences(const SessionLife& life, bool fromTheStart) {
    std::map<int, std::vector<int>> sequences;
    for (const auto& stream : life.streams) {
        EXPECT_TRUE(!life.session || stream->completionCount() == 1) << "a connect of a live session is unanswered";
        for (const std::string& text : stream->seen()) {
            if (text.rfind("response:", 0) != 0) {
                const std::size_t slash = text.find('/');
                sequences[std::stoi(text.substr(0, slash))].push_back(std::stoi(text.substr(slash + 1)));
            }
        }
    }
    EXPECT_TRUE(!fromTheStart || sequences.size() == publisherCount) << "a publisher is missing";
    for (const auto& [publisher, sequence] : sequences) {
        EXPECT_TRUE(!fromTheStart || sequence.front() == 0) << "the start is missing";
        SCOPED_TRACE("publisher " + std::to_string(publisher));
        EXPECT_TRUE(!life.session || sequence.back() == messagesPerPublisher - 1) << "a live session missed the end";
        for (std::size_t i = 1; i < sequence.size(); ++i) {
            ASSERT_EQ(sequence[i], sequence[i - 1] + 1) << "each message once, in order, no gap";
        }
    }
}

// Publishes run while clients drop, replace and reconnect their sessions, the first session of
// every client adds and drops patterns that overlap its steady "/load/*", short-lived sessions
// subscribe, join either tier, are removed and die, and a timer thread moves the clock: every
// session gets every message once and in order, however many of its patterns match it meanwhile.
TEST(LongPollSessionConcurrency, EveryAcceptedMessageReachesTheStreamsOnceAndInOrder) {
    ManualClock clock;
    auto server = std::make_shared<BayeuxServerImpl>();
    // Per client: every session it ever had, and the indexes of the live ones; the first is never dropped.
    std::vector<std::vector<SessionLife>> lives(clientCount);
    std::vector<std::vector<std::size_t>> live(clientCount);
    std::vector<std::shared_ptr<LongPollSession>> steady;
    for (int c = 0; c < clientCount; ++c) {
        for (int i = 0; i < sessionsPerClient; ++i) {
            live[c].push_back(lives[c].size());
            lives[c].push_back(openSession(server));
        }
        steady.push_back(lives[c][0].session);
    }
    // A host's session, offered everything, counts the publishes; the short-lived sessions count their allocations.
    std::atomic<int> publishersDone{0}, offeredToHost{0}, liveShortLived{0};
    const CountingAllocator<LongPollSession> allocator(liveShortLived);
    const auto host = std::make_shared<RecordingSession>("host", nullptr);
    host->onPublish = [&offeredToHost](const PublishRequest&) { ++offeredToHost; };
    server->addPrioritySession(host);
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        while (publishersDone.load() < publisherCount) {
            clock->advance(1ms);
            std::this_thread::yield();
        }
    });
    threads.emplace_back([&] {
        for (int round = 0; publishersDone.load() < publisherCount; ++round) {
            const std::string exact = "/load/" + std::to_string(round % publisherCount);
            for (const auto& session : steady) {
                EXPECT_TRUE(session->subscribe("/load/**") && session->subscribe(exact));
            }
            for (const auto& session : steady) {
                EXPECT_TRUE(session->unsubscribe(exact) && session->unsubscribe("/load/**"));
            }
            auto shortLived = std::allocate_shared<LongPollSession>(allocator, server, nullptr);
            shortLived->subscribe("/load/**");
            round % 2 == 0 ? server->addSession(shortLived) : server->addPrioritySession(shortLived);
            shortLived->subscribe("/load/0");
            const auto transient = std::make_shared<RecordingSession>("transient", nullptr);
            server->addSession(transient);
            server->removeSession(round % 3 == 0 ? std::shared_ptr<BayeuxSession>(shortLived) : transient);
        }
    });
    for (int p = 0; p < publisherCount; ++p) {
        threads.emplace_back([&, p] {
            for (int sequence = 0; sequence < messagesPerPublisher; ++sequence) {
                const std::string text = std::to_string(p) + "/" + std::to_string(sequence);
                EXPECT_TRUE(server->deliver(makePublish("/load/" + std::to_string(p), text)));
                if (sequence % 16 == 0) {
                    std::this_thread::sleep_for(50us);
                }
            }
            ++publishersDone;
        });
    }
    for (int c = 0; c < clientCount; ++c) {
        threads.emplace_back([&, c] {
            std::mt19937 random(static_cast<unsigned>(c));
            for (int connects = 0; publishersDone.load() < publisherCount;) {
                std::size_t& index = live[c][random() % sessionsPerClient];
                if (random() % 12 == 0 && index != 0) {
                    lives[c][index].session.reset();
                    index = lives[c].size();
                    lives[c].push_back(openSession(server));
                } else {
                    SessionLife& life = lives[c][index];
                    auto queue = life.session->connectStream(std::to_string(++connects), 1 + random() % 2, true, true);
                    life.streams.push_back(watch(queue));
                }
                std::this_thread::sleep_for(std::chrono::microseconds(100 + random() % 300));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(offeredToHost, publisherCount * messagesPerPublisher);
    EXPECT_EQ(liveShortLived, 0) << "dead sessions leave nothing behind in the server";
    steady.clear();
    for (auto& client : lives) {
        for (auto& life : client) {
            if (life.session) {  // what is still pending comes out with a last poll
                life.streams.push_back(watch(life.session->korvaneShortPoll("final")));
            }
            expectGaplessSequences(life, &life == &client[0]);
        }
    }
    lives.clear();
    EXPECT_EQ(clock->armedCount(), 0u);
}

}  // namespace
}  // namespace korvane::bayeux::testing
