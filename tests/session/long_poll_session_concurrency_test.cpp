#include "korvane/session/long_poll_session.h"

#include <atomic>
#include <map>
#include <numeric>
#include <random>
#include <thread>

#include "session/session_test_support.h"

namespace korvane::bayeux::testing {
namespace {

// Publishers deliver while clients connect on their own threads, the sessions add and drop
// patterns that overlap their steady "/load/*", short-lived sessions with a held connect join
// either tier, are removed and die, and a timer thread moves the clock: every session gets every
// message once and in order, however many of its patterns match it meanwhile, each dying session
// answers its connect, and the dead leave nothing behind in the server.
TEST(LongPollSessionConcurrency, EveryAcceptedMessageReachesTheStreamsOnceAndInOrder) {
    constexpr int publisherCount = 3, messagesEach = 600, clientCount = 2, sessionsPerClient = 4;
    ManualClock clock;
    auto server = std::make_shared<BayeuxServerImpl>();
    std::vector<std::shared_ptr<LongPollSession>> sessions;
    std::vector<std::vector<std::shared_ptr<StreamRecorder>>> streams(clientCount * sessionsPerClient);
    for (std::size_t i = 0; i < streams.size(); ++i) {
        sessions.push_back(std::make_shared<LongPollSession>(server, nullptr));
        ASSERT_TRUE(sessions.back()->subscribe("/load/*"));
        server->addSession(sessions.back());
    }
    // A host's session, offered everything, counts the publishes; the short-lived sessions count their allocations.
    std::atomic<int> publishersDone{0}, offeredToHost{0}, liveShortLived{0};
    const CountingAllocator<LongPollSession> allocator(liveShortLived);
    const auto host = std::make_shared<RecordingSession>("host", nullptr);
    host->onPublish = [&offeredToHost](const PublishRequest&) { ++offeredToHost; };
    server->addPrioritySession(host);
    std::vector<std::shared_ptr<StreamRecorder>> dyingStreams;
    const auto running = [&publishersDone] { return publishersDone.load() < publisherCount; };
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        while (running()) {
            clock->advance(1ms);
            std::this_thread::yield();
        }
    });
    threads.emplace_back([&] {
        for (int round = 0; running(); ++round) {
            const std::string exact = "/load/" + std::to_string(round % publisherCount);
            for (const auto& session : sessions) {
                EXPECT_TRUE(session->subscribe("/load/**") && session->subscribe(exact));
            }
            for (const auto& session : sessions) {
                EXPECT_TRUE(session->unsubscribe(exact) && session->unsubscribe("/load/**"));
            }
            auto shortLived = std::allocate_shared<LongPollSession>(allocator, server, nullptr);
            shortLived->subscribe("/load/**");
            round % 2 == 0 ? server->addSession(shortLived) : server->addPrioritySession(shortLived);
            dyingStreams.push_back(watch(shortLived->connectStream("dying", 300, true, true)));
            const auto transient = std::make_shared<RecordingSession>("transient", nullptr);
            server->addSession(transient);
            server->removeSession(round % 3 == 0 ? std::shared_ptr<BayeuxSession>(shortLived) : transient);
        }
    });
    for (int p = 0; p < publisherCount; ++p) {
        threads.emplace_back([&, p] {
            for (int sequence = 0; sequence < messagesEach; ++sequence) {
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
            for (int connects = 0; running(); ++connects) {
                const std::size_t index = c * sessionsPerClient + random() % sessionsPerClient;
                auto queue = sessions[index]->connectStream(std::to_string(connects), 1 + random() % 2, true, true);
                streams[index].push_back(watch(queue));
                std::this_thread::sleep_for(std::chrono::microseconds(100 + random() % 300));
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(offeredToHost, publisherCount * messagesEach);
    EXPECT_EQ(liveShortLived, 0);
    for (const auto& stream : dyingStreams) {
        ASSERT_EQ(stream->completionCount(), 1) << "a dying session answers its connect";
    }
    std::vector<int> everySequence(messagesEach);
    std::iota(everySequence.begin(), everySequence.end(), 0);
    for (std::size_t index = 0; index < sessions.size(); ++index) {
        streams[index].push_back(watch(sessions[index]->korvaneShortPoll("final")));  // takes what is still pending
        std::map<int, std::vector<int>> sequences;
        for (const auto& stream : streams[index]) {
            EXPECT_EQ(stream->completionCount(), 1) << "a connect of a live session is unanswered";
            for (const std::string& text : stream->seen()) {
                if (text.rfind("response:", 0) != 0) {
                    const std::size_t slash = text.find('/');
                    sequences[std::stoi(text.substr(0, slash))].push_back(std::stoi(text.substr(slash + 1)));
                }
            }
        }
        ASSERT_EQ(sequences.size(), std::size_t{publisherCount}) << "session " << index;
        for (const auto& [publisher, sequence] : sequences) {
            EXPECT_EQ(sequence, everySequence) << "session " << index << ", publisher " << publisher;
        }
    }
    sessions.clear();
    EXPECT_EQ(clock->armedCount(), 0u);
}

}  // namespace
}  // namespace korvane::bayeux::testing
