// The two kinds of session: a remote client's, which buffers for its connects, and a local
// participant's, which hands messages to in-process subscribers.

#include "korvane/session/local_session.h"
#include "korvane/session/long_poll_session.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <numeric>
#include <random>
#include <sstream>
#include <thread>

#include "session/session_test_support.h"

namespace korvane::bayeux::testing {
namespace {

using Keys = std::vector<std::string>;  // patterns as the routing core holds them

// A remote client's session subscribed to "/a/**" and a local participant's session, both on a
// routing core where the host's session "spy" notes what it hears. One thread: the test's.
class SessionTest : public ::testing::Test {
protected:
    void SetUp() override {
        spy->onPublish = [this](const PublishRequest& message) {
            heard.push_back(&message);
            spy->record("from " + message.clientId);
        };
        server->addSession(spy);
        server->addSession(session);
        server->addSession(local);
        ASSERT_TRUE(session->subscribe("/a/**"));
        log.clear();
    }
    void publish(const std::string& data, const std::string& channel = "/a/b") {
        ASSERT_TRUE(server->deliver(makePublish(channel, data)));
    }

    ManualClock clock;
    Log log;                                    // what the host's session "spy" heard
    std::vector<const PublishRequest*> heard;  // and the messages it was offered
    std::shared_ptr<BayeuxServerImpl> server = std::make_shared<BayeuxServerImpl>();
    std::shared_ptr<RecordingSession> spy = std::make_shared<RecordingSession>("spy", &log);
    std::shared_ptr<LongPollSession> session = std::make_shared<LongPollSession>(server, nullptr);
    const std::string id = session->getId();
    std::shared_ptr<LocalBayeuxSession> local = std::make_shared<LocalBayeuxSession>(server, nullptr);
};

// A transport's sink kept across connects: it records what every connect through it carries. The
// session calls deliver on whichever thread drains it; the recorder is safe from any thread.
class SinkRecorder : public ConnectSink {
public:
    void deliver(std::unique_ptr<Message>&& message) override { recorder->onNext(std::move(message)); }
    bool cancelled() const override { return readerCancelled; }

    std::atomic<bool> readerCancelled{false};

    const std::shared_ptr<StreamRecorder> recorder = std::make_shared<StreamRecorder>();
};

// Runs steps "name [arguments]" on the fixture's session, subscribed to "/a/**", and returns what
// the probing steps reported. Steps: connect ID [TICKS] [streaming|slow] (a buffered connect held
// 300 ticks unless told; a slow reader asks for nothing at first), sink ID [TICKS] (a buffered
// connect through the one sink the steps share, whose items the probe "seen sink" shows), unsink
// (the sink goes: its reader let go, as when its client goes away), cancel (the sink lives on but
// says that its reader cancelled), request ID N,
// publish DATA [CHANNEL] (to "/a/b" unless told), ms N, ticks N, flush, destroy (drops the session),
// and the probes: seen ID (as "ID: <items> end" once it ended), armed (timers armed), active (a
// connect is open). Every response must come from this session, and no delivered message carries
// its publisher's id. Short polls are the protocol service's to show.
using Script = std::pair<std::vector<std::string>, Texts>;

class LongPollSessionScript : public SessionTest, public ::testing::WithParamInterface<Script> {
protected:
    Texts run(const std::vector<std::string>& steps) {
        Texts probes;
        std::map<std::string, std::shared_ptr<StreamRecorder>> streams;
        auto sink = std::make_shared<SinkRecorder>();
        streams["sink"] = sink->recorder;
        for (const std::string& step : steps) {
            std::istringstream words(step);
            std::string name, first, second, third;
            words >> name >> first >> second >> third;
            const bool opens = name == "connect" || name == "sink";
            const long long hold = opens ? std::stoll(second.empty() ? "300" : second) : 0;
            if (name == "connect") {
                streams[first] = watch(session->connectStream(first, hold, third != "streaming", true),
                                       third == "slow" ? 0 : ~0ul);
            } else if (name == "sink") {
                session->connectTo(sink, first, hold, true, true);
            } else if (name == "unsink" || name == "destroy") {
                name == "unsink" ? sink.reset() : session.reset();
            } else if (name == "cancel") {
                sink->readerCancelled = true;
            } else if (name == "request") {
                streams.at(first)->request(std::stoul(second));
            } else if (name == "publish") {
                publish(first, second.empty() ? "/a/b" : second);
            } else if (name == "ms" || name == "ticks") {
                name == "ms" ? clock->advance(std::chrono::milliseconds(std::stoll(first)))
                             : clock->advanceTicks(std::stoll(first));
            } else if (name == "flush") {
                session->flush();
            } else if (name == "seen") {
                const Texts seen = streams.at(first)->seen();
                const long ends = streams.at(first)->completionCount();
                probes.push_back(std::accumulate(seen.begin(), seen.end(), first + ":", spaced) +
                                 (ends == 0 ? "" : ends == 1 ? " end" : " ends " + std::to_string(ends)));
            } else {
                probes.push_back(name == "armed" ? "armed " + std::to_string(clock->armedCount())
                                                 : std::string("active ") + (session->hasActiveConnect() ? "yes" : "no"));
            }
        }
        for (auto& [name, stream] : streams) {
            for (std::size_t index = 0; index < stream->size(); ++index) {
                const auto* response = stream->at<ConnectResponse>(index);
                const auto* message = stream->at<PublishRequest>(index);
                EXPECT_TRUE(response ? response->clientId == id : message->clientId.empty()) << name << " " << index;
            }
        }
        return probes;
    }
    static std::string spaced(const std::string& all, const std::string& text) { return all + " " + text; }
};

TEST_P(LongPollSessionScript, ConnectsBuffersTimersAndAnswers) {
    EXPECT_EQ(run(GetParam().first), GetParam().second);
}

INSTANTIATE_TEST_SUITE_P(Scripts, LongPollSessionScript, ::testing::ValuesIn(std::vector<Script>{
        // A burst inside the buffer period gives one answer; the period does not stretch, and the
        // connect's deadline (tick 120) passing within it answers nothing.
        {{"connect c1 120", "ms 11999", "publish m1", "ms 2", "publish m2", "ms 2", "publish m3", "seen c1", "ms 1",
          "seen c1", "armed", "publish later", "armed"},
         {"c1:", "c1: m1 m2 m3 response:c1 end", "armed 0", "armed 0"}},
        // The next connect answers the open one; a flush leaves the answer to the next message or connect.
        {{"connect c1", "connect c2", "seen c1", "seen c2", "publish m1", "ms 5", "seen c2", "connect c3", "flush",
          "ticks 1000", "seen c3", "armed", "active", "publish m2", "ms 5", "seen c3", "connect c4", "flush",
          "connect c5", "seen c4", "seen c5"},
         {"c1: response:c1 end", "c2:", "c2: m1 response:c2 end", "c3:", "armed 0", "active yes",
          "c3: m2 response:c3 end", "c4: response:c4 end", "c5:"}},
        // A streaming connect passes messages through and keeps its timer; a hold of zero answers at once.
        {{"connect c1 10 streaming", "publish m1", "seen c1", "publish m2", "ticks 9", "seen c1", "ticks 1",
          "seen c1", "connect c2 0", "seen c2", "active", "armed"},
         {"c1: m1", "c1: m1 m2", "c1: m1 m2 response:c1 end", "c2: response:c2 end", "active no", "armed 0"}},
        // The response comes last also when the transport takes one item at a time; a message that
        // arrives after the answer waits for the next connect.
        {{"publish m1", "publish m2", "connect c1 300 slow", "request c1 1", "seen c1", "publish m3",
          "request c1 5", "seen c1", "connect c2", "seen c2"},
         {"c1: m1", "c1: m1 m2 response:c1 end", "c2: m3 response:c2 end"}},
        // A session dying with an open connect answers it with what is pending, and releases its timer
        // (one timer serves the deadline and the batch).
        {{"connect c1", "publish m1", "armed", "destroy", "seen c1", "armed", "ticks 400"},
         {"armed 1", "c1: m1 response:c1 end", "armed 0"}},
        // A connect answered early leaves the connect timer armed; a later connect is answered at its
        // own deadline, not at the first one's; the timer then goes, and the next connect arms it again.
        {{"connect c1", "publish m1", "ms 5", "ticks 100", "connect c2", "ticks 299", "seen c2", "armed", "ticks 1",
          "seen c2", "armed", "connect c3 1", "ticks 1", "seen c3"},
         {"c2:", "armed 1", "c2: response:c2 end", "armed 0", "c3: response:c3 end"}},
        // A batch answered by the next connect leaves its buffer timer armed: when it fires it finds no batch
        // collecting and answers nothing; a batch of the new connect moves it to its own 5 ms.
        {{"connect c1", "publish m1", "ms 2", "connect c2", "seen c1", "ms 3", "seen c2", "active", "publish m2",
          "ms 4", "seen c2", "ms 1", "seen c2", "connect c3", "publish m3", "ms 2", "connect c4", "ms 1",
          "publish m4", "ms 4", "seen c4", "ms 1", "seen c4"},
         {"c1: m1 response:c1 end", "c2:", "active yes", "c2:", "c2: m2 response:c2 end", "c4:",
          "c4: m4 response:c4 end"}},
        // A hold as long as a client's advice can ask for (2^63 ms) is kept, and wraps into no past.
        {{"connect c1 92233720368547758", "ticks 100000", "seen c1", "armed"}, {"c1:", "armed 1"}},
        // A connect with an earlier deadline than the armed timer's takes the timer's place.
        {{"connect c1", "connect c2 10", "armed", "ticks 9", "seen c2", "ticks 1", "seen c2", "armed"},
         {"armed 1", "c2:", "c2: response:c2 end", "armed 0"}},
        // Through a sink: the same batching and timers, connects answered in the order they opened,
        // pending messages at once, and a session dying with one open answers it.
        {{"sink c1", "ms 12000", "publish m1", "ms 2", "publish m2", "ms 2", "seen sink", "ms 1", "seen sink",
          "publish m3", "sink c2", "sink c3", "seen sink", "ticks 300", "sink c4", "publish m4", "destroy",
          "seen sink"},
         {"sink:", "sink: m1 m2 response:c1", "sink: m1 m2 response:c1 m3 response:c2",
          "sink: m1 m2 response:c1 m3 response:c2 response:c3 m4 response:c4"}},
        // A connect whose reader let go is no longer open, and what comes for it waits for the next
        // connect (a long poll whose connection broke: end to end, in the HTTP test).
        {{"sink c1", "unsink", "publish m1", "ms 5", "active", "connect c2", "seen c2"},
         {"active no", "c2: m1 response:c2 end"}},
        {{"sink c1", "cancel", "publish m1", "ms 5", "active", "connect c2", "seen c2", "seen sink"},
         {"active no", "c2: m1 response:c2 end", "sink:"}},
}));

// A pattern is "/..." not ending in "/", with a wildcard only at its very end. Only an accepted
// pattern is declared to the routing core and told to the host's sessions; holds are counted.
TEST_F(SessionTest, PatternsAreCheckedCountedToldAndForgottenWhenTheSessionDies) {
    const std::pair<const char*, bool> cases[] = {{"/a/b", true}, {"/a/*", true},   {"/a/**", true}, {"/a*", true},
                                                  {"/a/*/b", false}, {"/", false}, {"/a/", false},  {"a/b", false},
                                                  {"", false},    {"/a/***", false}};
    ASSERT_TRUE(session->unsubscribe("/a/**"));
    for (const auto& [pattern, valid] : cases) {
        SCOPED_TRACE(pattern);
        log.clear();
        EXPECT_EQ(session->subscribe(pattern), valid);
        EXPECT_EQ(server->heldKeys(), (valid ? Keys{std::string(pattern).substr(1)} : Keys{}));
        EXPECT_EQ(session->unsubscribe(pattern), valid);
        EXPECT_FALSE(session->unsubscribe(pattern)) << "no longer held";
        const std::string told = pattern;
        EXPECT_EQ(log, (valid ? Log{"spy:subscribe " + told, "spy:unsubscribe " + told} : Log{}));
    }
    for (const char* pattern : {"/x/*", "/x/*", "/x/y", "/a/**"}) {
        ASSERT_TRUE(session->subscribe(pattern));
    }
    EXPECT_TRUE(session->unsubscribe("/x/*"));
    EXPECT_EQ(server->heldKeys(), (Keys{"a/**", "x/*", "x/y"})) << "held twice, withdrawn once";
    publish("m1", "/x/y");
    EXPECT_EQ(watch(session->korvaneShortPoll("p"))->seen(), (Texts{"m1", "response:p advice:0/200/-1"}));
    log.clear();
    session.reset();
    std::sort(log.begin(), log.end());
    EXPECT_EQ(log, (Log{"spy:unsubscribe /a/**", "spy:unsubscribe /x/*", "spy:unsubscribe /x/y"}));
    EXPECT_EQ(server->heldKeys(), Keys{}) << "a dying session leaves nothing held";
}

// A local participant's shared message is stamped like an owned one and goes on as it is; a refused
// one stays with its caller. Owned messages' stamps keep publishers from hearing themselves, end to end.
TEST_F(SessionTest, ASharedMessageIsStampedAndPassedOnAsItIs) {
    auto shared = std::shared_ptr<const PublishRequest>(makePublish("/a/b", "shared", "forged"));
    EXPECT_TRUE(local->publish(std::shared_ptr<const PublishRequest>(shared)));
    EXPECT_EQ(log, (Log{"spy:/a/b", "spy:from " + local->getId()}));
    EXPECT_EQ(heard.back(), shared.get());
    EXPECT_FALSE(local->publish(std::shared_ptr<const PublishRequest>(makePublish("/", "bad"))));
}

// The report takes the session's own lock: one made with the lock held would deadlock.
TEST_F(SessionTest, PendingLimitIsReportedOnceWithTheLockReleasedAndNothingMoreIsKept) {
    Texts reported;
    PendingLimit limit{2, 0, [&](const std::string& clientId) {
                           EXPECT_FALSE(session->hasActiveConnect());
                           reported.push_back(clientId);
                       }};
    session = std::make_shared<LongPollSession>(server, nullptr, limit);  // in place of the fixture's
    server->addSession(session);
    ASSERT_TRUE(session->subscribe("/a/**"));
    for (const char* data : {"m1", "m2", "m3", "m4", "m5"}) {
        publish(data);
        EXPECT_EQ(reported.size(), data[1] <= '2' ? 0u : 1u) << data << ": the limit itself is allowed";
    }
    EXPECT_EQ(reported, Texts{session->getId()});
    auto stream = watch(session->connectStream("c", 300, true, true));
    EXPECT_EQ(stream->seen(), (Texts{"m1", "m2", "m3", "response:c"})) << "nothing past the first excess is kept";
}

// The routing core holds the patterns of live subscriptions; a released one is pruned only by a
// deliver that matches it. Each stream is a cached-value publisher: a finish comes after the values.
TEST_F(SessionTest, EachLiveLocalSubscriptionGetsAMatchingMessageOnceAllShareItAndTheSessionsDeathEndsIt) {
    LocalPublisher both = local->subscribe(std::vector<std::string>{"/a/*", "/a/b", "/a/**"}),
                   first = local->subscribe("/a/b"), second = local->subscribe("/a/b"),
                   never = local->subscribe(std::vector<std::string>{});
    auto bothSeen = watch(both), firstSeen = watch(first), secondSeen = watch(second), neverSeen = watch(never);
    local->subscribe("/c");  // released at once
    EXPECT_EQ(log, Log{}) << "subscribing tells nobody";
    EXPECT_EQ(server->heldKeys(), (Keys{"a/*", "a/**", "a/b", "c"}));
    publish("m1", "/a/b");
    publish("m2", "/a/c");
    EXPECT_TRUE(server->isHeld("c")) << "an entry that does not match is not tested for life";
    publish("m3", "/c");
    EXPECT_EQ(server->heldKeys(), (Keys{"a/*", "a/**", "a/b"}));
    EXPECT_EQ(firstSeen->seen(), Texts{"m1"});
    EXPECT_EQ(secondSeen->seen(), Texts{"m1"});
    EXPECT_EQ(neverSeen->size(), 0u);
    EXPECT_EQ(firstSeen->at<PublishRequest>(0), secondSeen->at<PublishRequest>(0))
        << "receivers share the one published object";
    local.reset();
    EXPECT_EQ(server->heldKeys(), Keys{"a/**"}) << "the dead session forgot itself";
    EXPECT_EQ(bothSeen->events(), (Log{"subscribe", "next m1", "next m2", "complete"}))
        << "three matching patterns, one offer";
    publish("after", "/a/b");
}

// Publishers deliver while clients connect on their own threads, the sessions add and drop
// patterns that overlap their steady "/load/*", short-lived sessions with a held connect join
// either tier and die, and a timer thread moves the clock: every session gets every message once
// and in order, however many of its patterns match it meanwhile, and each dying session answers
// its connect. Local sessions on real threads are the cluster bridge's concurrency test's.
TEST(SessionConcurrency, EveryAcceptedMessageReachesTheStreamsOnceAndInOrder) {
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
    std::vector<std::shared_ptr<StreamRecorder>> dyingStreams;
    std::vector<Texts> sent(publisherCount);  // by publisher, in order
    std::atomic<int> publishersDone{0};
    const auto running = [&publishersDone] { return publishersDone.load() < publisherCount; };
    const auto moveClock = [&] {
        for (; running(); std::this_thread::yield()) {
            clock->advance(1ms);
        }
    };
    const auto churn = [&] {
        for (int round = 0; running(); ++round) {
            const std::string exact = "/load/" + std::to_string(round % publisherCount);
            for (const auto& session : sessions) {
                EXPECT_TRUE(session->subscribe("/load/**") && session->subscribe(exact));
            }
            for (const auto& session : sessions) {
                EXPECT_TRUE(session->unsubscribe(exact) && session->unsubscribe("/load/**"));
            }
            auto shortLived = std::make_shared<LongPollSession>(server, nullptr);
            shortLived->subscribe("/load/**");
            round % 2 == 0 ? server->addSession(shortLived) : server->addPrioritySession(shortLived);
            dyingStreams.push_back(watch(shortLived->connectStream("dying", 300, true, true)));
        }
    };
    const auto publish = [&](int p) {
        for (int sequence = 0; sequence < messagesEach; ++sequence) {
            const std::string& text = sent[p].emplace_back(std::to_string(p) + "/" + std::to_string(sequence));
            EXPECT_TRUE(server->deliver(makePublish("/load/" + std::to_string(p), text)));
            if (sequence % 16 == 0) {
                std::this_thread::sleep_for(50us);
            }
        }
        ++publishersDone;
    };
    const auto connect = [&](int c) {
        std::mt19937 random(static_cast<unsigned>(c));
        for (int connects = 0; running(); ++connects) {
            const std::size_t index = c * sessionsPerClient + random() % sessionsPerClient;
            auto queue = sessions[index]->connectStream(std::to_string(connects), 1 + random() % 2, true, true);
            streams[index].push_back(watch(queue));
            std::this_thread::sleep_for(std::chrono::microseconds(100 + random() % 300));
        }
    };
    test_support::onThreads(2 + publisherCount + clientCount, [&](int index) {
        index < 2 ? (index == 0 ? moveClock() : churn())
                  : index < 2 + publisherCount ? publish(index - 2) : connect(index - 2 - publisherCount);
    });
    for (const auto& stream : dyingStreams) {
        ASSERT_EQ(stream->completionCount(), 1) << "a dying session answers its connect";
    }
    for (std::size_t index = 0; index < sessions.size(); ++index) {
        streams[index].push_back(watch(sessions[index]->korvaneShortPoll("final")));  // takes what is still pending
        std::vector<Texts> received(publisherCount);  // by publisher
        for (const auto& stream : streams[index]) {
            EXPECT_EQ(stream->completionCount(), 1) << "a connect of a live session is unanswered";
            for (const std::string& text : stream->seen()) {
                text.rfind("response:", 0) == 0 ? void() : received.at(text[0] - '0').push_back(text);
            }
        }
        EXPECT_EQ(received, sent) << "session " << index;
    }
}

}  // namespace
}  // namespace korvane::bayeux::testing
