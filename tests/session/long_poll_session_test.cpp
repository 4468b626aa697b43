#include "korvane/session/long_poll_session.h"

#include <algorithm>

#include "session/session_test_support.h"

namespace korvane::bayeux::testing {
namespace {

class LongPollSessionTest : public ::testing::Test {
protected:
    void SetUp() override {
        spy->onPublish = [this](const PublishRequest& message) { spy->record("from " + message.clientId); };
        server->addSession(spy);
        server->addSession(session);
        ASSERT_TRUE(session->subscribe("/a/**"));
        log.clear();
    }
    void publish(const std::string& data, const std::string& channel = "/a/b") {
        ASSERT_TRUE(server->deliver(makePublish(channel, data)));
    }
    std::shared_ptr<StreamRecorder> connect(const std::string& id, long long ticks = 300, bool buffer = true) {
        return watch(session->connectStream(id, ticks, buffer, true));
    }
    // The stream carried `expected` and ended once, with a response from this session.
    void expectAnswer(StreamRecorder& stream, const Texts& expected) {
        EXPECT_EQ(stream.seen(), expected);
        EXPECT_EQ(stream.completionCount(), 1);
        const auto* response = stream.at<ConnectResponse>(expected.size() - 1);
        EXPECT_EQ(response ? response->clientId : "none", id);
    }

    ManualClock clock;
    Log log;  // what the host's session "spy" heard
    std::shared_ptr<PatternLedger> server = std::make_shared<PatternLedger>();
    std::shared_ptr<RecordingSession> spy = std::make_shared<RecordingSession>("spy", &log);
    std::shared_ptr<LongPollSession> session = std::make_shared<LongPollSession>(server, nullptr);
    const std::string id = session->getId();
};

TEST_F(LongPollSessionTest, BurstInsideBufferPeriodGivesOneAnswerAndThePeriodDoesNotStretch) {
    auto stream = connect("c1");
    clock->advance(12000ms);
    publish("m1");
    clock->advance(2ms);
    publish("m2");
    clock->advance(2ms);
    publish("m3");
    EXPECT_EQ(stream->size(), 0u);
    clock->advance(1ms);
    expectAnswer(*stream, {"m1", "m2", "m3", "response:c1"});
    EXPECT_EQ(clock->armedCount(), 0u) << "the connect timer went with the first message";
    publish("later");
    EXPECT_EQ(clock->armedCount(), 0u) << "with no connect open a message arms nothing";
}

TEST_F(LongPollSessionTest, PendingMessagesAnswerTheNextConnectAtOnceInOrderWithoutPublisherId) {
    // Notices about other sessions change nothing here.
    session->deliver(std::make_shared<const SubscribeRequest>("/b", "other"));
    session->deliver(std::make_shared<const UnsubscribeRequest>("/a/**", "other"));
    publish("m1");
    publish("m2", "/a/c/d");
    publish("ignored", "/b");
    EXPECT_EQ(clock->armedCount(), 0u);
    auto stream = connect("c1");
    expectAnswer(*stream, {"m1", "m2", "response:c1"});
    EXPECT_FALSE(session->hasActiveConnect());
    EXPECT_EQ(stream->at<PublishRequest>(0)->clientId, "");
}

TEST_F(LongPollSessionTest, NextConnectAnswersTheOpenOneAndFlushLeavesTheAnswerToTheNextMessageOrConnect) {
    auto first = connect("c1");
    auto second = connect("c2");
    expectAnswer(*first, {"response:c1"});
    EXPECT_EQ(second->size(), 0u);
    publish("m1");
    clock->advance(5ms);
    expectAnswer(*second, {"m1", "response:c2"});
    auto flushed = connect("c3");
    session->flush();
    EXPECT_EQ(clock->armedCount(), 0u);
    clock->advanceTicks(1000);
    EXPECT_EQ(flushed->size(), 0u);
    EXPECT_TRUE(session->hasActiveConnect());
    publish("m2");
    clock->advance(5ms);
    expectAnswer(*flushed, {"m2", "response:c3"});
    flushed = connect("c4");
    session->flush();
    auto next = connect("c5");
    expectAnswer(*flushed, {"response:c4"});
    EXPECT_EQ(next->size(), 0u);
}

TEST_F(LongPollSessionTest, StreamingConnectPassesMessagesThroughAndKeepsItsTimer) {
    auto stream = connect("c1", 10, false);
    publish("m1");
    EXPECT_EQ(stream->seen(), Texts{"m1"});
    publish("m2");
    clock->advanceTicks(9);
    EXPECT_EQ(stream->completionCount(), 0);
    clock->advanceTicks(1);
    expectAnswer(*stream, {"m1", "m2", "response:c1"});
    expectAnswer(*connect("c2", 0), {"response:c2"});
    EXPECT_FALSE(session->hasActiveConnect()) << "a hold of zero answers at once";
    EXPECT_EQ(clock->armedCount(), 0u);
}

TEST_F(LongPollSessionTest, ResponseComesLastAlsoWhenTheTransportTakesOneAtATime) {
    publish("m1");
    publish("m2");
    auto slow = watch(session->connectStream("c1", 300, true, true), 0);
    slow->request(1);
    EXPECT_EQ(slow->seen(), Texts{"m1"});
    publish("m3");  // arrives after the answer: it waits for the next connect
    slow->request(5);
    expectAnswer(*slow, {"m1", "m2", "response:c1"});
    expectAnswer(*connect("c2"), {"m3", "response:c2"});
}

TEST_F(LongPollSessionTest, SessionDyingWithAnOpenConnectAnswersItWithWhatIsPending) {
    auto stream = connect("c1");
    publish("m1");
    EXPECT_EQ(clock->armedCount(), 1u);
    session.reset();
    expectAnswer(*stream, {"m1", "response:c1"});
    EXPECT_EQ(clock->armedCount(), 0u);
    clock->advanceTicks(400);
}

TEST_F(LongPollSessionTest, ShortPollAnswersWithRetryAdviceAndLeavesNoConnectOpen) {
    auto open = connect("c1");
    publish("m1");
    publish("m2");
    clock->advance(1ms);
    auto poll = watch(session->korvaneShortPoll("s1"));
    expectAnswer(*open, {"m1", "m2", "response:c1"});
    expectAnswer(*poll, {"response:s1 advice:0/200/-1"});
    publish("m3");
    expectAnswer(*watch(session->korvaneShortPoll("s2")), {"m3", "response:s2 advice:0/200/-1"});
    EXPECT_FALSE(session->hasActiveConnect());
    EXPECT_EQ(clock->armedCount(), 0u);
}

TEST_F(LongPollSessionTest, PatternValidation) {
    const std::pair<const char*, bool> cases[] = {{"/a/b", true}, {"/a/*", true},   {"/a/**", true}, {"/a*", true},
                                                  {"/a/*/b", false}, {"/", false}, {"/a/", false},  {"a/b", false},
                                                  {"", false},    {"/a/***", false}};
    ASSERT_TRUE(session->unsubscribe("/a/**"));
    for (const auto& [pattern, valid] : cases) {
        SCOPED_TRACE(pattern);
        log.clear();
        EXPECT_EQ(session->subscribe(pattern), valid);
        EXPECT_EQ(log, valid ? Log{"spy:subscribe " + std::string(pattern)} : Log{});
        using Held = std::map<std::string, int>;
        EXPECT_EQ(server->held(), (valid ? Held{{pattern, 1}} : Held{})) << "only an accepted pattern is declared to the routing core";
        EXPECT_EQ(session->unsubscribe(pattern), valid);
        EXPECT_FALSE(session->unsubscribe(pattern)) << "no longer held";
    }
}

TEST_F(LongPollSessionTest, HoldsAreCountedOfferedOnceAndToldAndForgottenWhenTheSessionDies) {
    for (const char* pattern : {"/x/*", "/x/*", "/x/y", "/a/*"}) {
        ASSERT_TRUE(session->subscribe(pattern));
    }
    EXPECT_FALSE(session->unsubscribe("/never"));
    EXPECT_TRUE(session->unsubscribe("/a/*"));
    EXPECT_EQ(server->held(), (std::map<std::string, int>{{"/a/**", 1}, {"/x/*", 2}, {"/x/y", 1}}));
    EXPECT_EQ(log, (Log{"spy:subscribe /x/*", "spy:subscribe /x/*", "spy:subscribe /x/y", "spy:subscribe /a/*",
                        "spy:unsubscribe /a/*"}));
    publish("m1", "/x/y");
    EXPECT_EQ(watch(session->korvaneShortPoll("p"))->seen(), (Texts{"m1", "response:p advice:0/200/-1"}));
    log.clear();
    session.reset();
    std::sort(log.begin(), log.end());
    EXPECT_EQ(log, (Log{"spy:unsubscribe /a/**", "spy:unsubscribe /x/*", "spy:unsubscribe /x/*",
                        "spy:unsubscribe /x/y"}));
    EXPECT_EQ(server->held(), (std::map<std::string, int>{{"/a/**", 1}, {"/x/*", 2}, {"/x/y", 1}, {"forgotten", 1}}))
        << "a dying session forgets itself at once rather than withdrawing each pattern";
}

TEST_F(LongPollSessionTest, PublishStampsTheSenderAndSkipsItsOwnSession) {
    auto stream = connect("c1");
    EXPECT_TRUE(session->publish(makePublish("/a/b", "own", "forged")));
    EXPECT_EQ(log, (Log{"spy:/a/b", "spy:from " + id}));
    clock->advanceTicks(1);
    EXPECT_EQ(stream->size(), 0u) << "a client does not receive its own publish";
    auto refused = makePublish("/a/*", "bad");
    EXPECT_FALSE(session->publish(std::move(refused)));
    EXPECT_NE(refused, nullptr) << "a refused request stays with the caller";
}

TEST_F(LongPollSessionTest, PendingLimitIsReportedOnceWithTheLockReleasedAndNothingMoreIsKept) {
    Texts reported;
    std::shared_ptr<LongPollSession> bounded;
    PendingLimit limit;
    limit.maxMessages = 2;
    limit.onExceeded = [&](const std::string& clientId) {
        // Takes the session's own lock: a report made with it held would deadlock here.
        EXPECT_FALSE(bounded->hasActiveConnect());
        reported.push_back(clientId);
    };
    bounded = std::make_shared<LongPollSession>(server, nullptr, limit);
    server->addSession(bounded);
    ASSERT_TRUE(bounded->subscribe("/a/**"));
    publish("m1");
    publish("m2");
    EXPECT_TRUE(reported.empty()) << "the limit itself is allowed";
    for (const char* data : {"m3", "m4", "m5"}) {
        publish(data);
    }
    EXPECT_EQ(reported, Texts{bounded->getId()});
    auto stream = watch(bounded->connectStream("c", 300, true, true));
    EXPECT_EQ(stream->seen(), (Texts{"m1", "m2", "m3", "response:c"})) << "nothing past the first excess is kept";
}

}  // namespace
}  // namespace korvane::bayeux::testing
