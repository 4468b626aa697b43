#include "korvane/session/long_poll_session.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "korvane/frame/manual_timer_backend.h"
#include "korvane/routing/bayeux_queue.h"
#include "korvane/routing/bayeux_server.h"
#include "session/session_test_support.h"

namespace korvane::bayeux {
namespace {

using namespace std::chrono_literals;
using testing::NoticeSpy;
using testing::StreamRecorder;
using testing::makePublish;

// One stream item as text: "data" for a message, "response:<id>" for the connect response.
std::string describe(const Message& message) {
    if (auto response = dynamic_cast<const ConnectResponse*>(&message)) {
        return "response:" + response->id;
    }
    if (auto publish = dynamic_cast<const PublishRequest*>(&message)) {
        return publish->data->str();
    }
    return "?";
}

class LongPollSessionTest : public ::testing::Test {
protected:
    void SetUp() override {
        previousBackend = common::installTimerBackend(timers);
        server->addSession(spy);
        session = std::make_shared<LongPollSession>(server, nullptr);
        server->addSession(session);
        ASSERT_TRUE(session->subscribe("/a/**"));
    }
    void TearDown() override {
        session.reset();
        common::installTimerBackend(previousBackend);
    }

    void publish(const std::string& data, const std::string& channel = "/a/b") {
        ASSERT_TRUE(server->deliver(makePublish(channel, data)));
    }
    std::shared_ptr<StreamRecorder> watch(const std::shared_ptr<BayeuxQueue>& queue) {
        auto recorder = std::make_shared<StreamRecorder>();
        queue->subscribe(recorder);
        return recorder;
    }
    std::shared_ptr<StreamRecorder> connect(const std::string& messageId, long long ticks = 300,
                                            bool bufferResponses = true) {
        return watch(session->connectStream(messageId, ticks, bufferResponses, true));
    }
    static std::vector<std::string> seen(StreamRecorder& recorder) {
        std::vector<std::string> texts;
        recorder.inspect([&texts](const std::vector<std::unique_ptr<Message>>& items) {
            for (const auto& item : items) {
                texts.push_back(describe(*item));
            }
        });
        return texts;
    }
    static const ConnectResponse& lastResponse(StreamRecorder& recorder) {
        const ConnectResponse* response = nullptr;
        recorder.inspect([&response](const std::vector<std::unique_ptr<Message>>& items) {
            response = dynamic_cast<const ConnectResponse*>(items.back().get());
        });
        EXPECT_NE(response, nullptr);
        return *response;
    }

    std::shared_ptr<common::ManualTimerBackend> timers = std::make_shared<common::ManualTimerBackend>();
    std::shared_ptr<common::TimerBackend> previousBackend;
    std::shared_ptr<BayeuxServerImpl> server = std::make_shared<BayeuxServerImpl>();
    std::shared_ptr<NoticeSpy> spy = std::make_shared<NoticeSpy>();
    std::shared_ptr<LongPollSession> session;
};

TEST_F(LongPollSessionTest, ConnectIsHeldUntilItsTimeoutAndAnsweredWithItsOwnId) {
    auto stream = connect("c1", 300);
    EXPECT_TRUE(session->hasActiveConnect());
    timers->advanceTicks(299);
    EXPECT_EQ(stream->size(), 0u);
    timers->advanceTicks(1);
    EXPECT_EQ(seen(*stream), (std::vector<std::string>{"response:c1"}));
    EXPECT_EQ(stream->completionCount(), 1);
    const ConnectResponse& response = lastResponse(*stream);
    EXPECT_EQ(response.clientId, session->getId());
    EXPECT_TRUE(response.successful);
    EXPECT_EQ(response.advice, nullptr);
    EXPECT_FALSE(session->hasActiveConnect());
    EXPECT_EQ(timers->armedCount(), 0u);
}

TEST_F(LongPollSessionTest, BurstInsideBufferPeriodGivesOneAnswerAndThePeriodDoesNotStretch) {
    auto stream = connect("c1", 300);
    timers->advance(12000ms);
    publish("m1");
    timers->advance(2ms);
    publish("m2");
    timers->advance(2ms);
    publish("m3");
    EXPECT_EQ(stream->size(), 0u);
    timers->advance(1ms);
    EXPECT_EQ(seen(*stream), (std::vector<std::string>{"m1", "m2", "m3", "response:c1"}));
    EXPECT_EQ(stream->completionCount(), 1);
    EXPECT_EQ(timers->armedCount(), 0u) << "the connect timer went with the first message";

    publish("later");
    EXPECT_EQ(timers->armedCount(), 0u) << "with no connect open a message arms nothing";
}

TEST_F(LongPollSessionTest, PendingMessagesAnswerTheNextConnectAtOnceInOrderWithoutPublisherId) {
    publish("m1");
    publish("m2", "/a/c/d");
    publish("ignored", "/b");
    EXPECT_EQ(timers->armedCount(), 0u);
    auto stream = connect("c1", 300);
    EXPECT_EQ(seen(*stream), (std::vector<std::string>{"m1", "m2", "response:c1"}));
    EXPECT_FALSE(session->hasActiveConnect());
    stream->inspect([](const std::vector<std::unique_ptr<Message>>& items) {
        EXPECT_EQ(static_cast<const PublishRequest&>(*items[0]).clientId, "");
    });
}

TEST_F(LongPollSessionTest, SecondConnectAnswersTheFirstWithTheFirstId) {
    auto first = connect("c1", 300);
    auto second = connect("c2", 300);
    EXPECT_EQ(seen(*first), (std::vector<std::string>{"response:c1"}));
    EXPECT_EQ(first->completionCount(), 1);
    EXPECT_EQ(second->size(), 0u);
    EXPECT_TRUE(session->hasActiveConnect());
    publish("m1");
    timers->advance(5ms);
    EXPECT_EQ(seen(*second), (std::vector<std::string>{"m1", "response:c2"}));
}

TEST_F(LongPollSessionTest, HoldOfZeroIsAnsweredAtOnceEvenWithNothingPending) {
    auto stream = connect("c1", 0);
    EXPECT_EQ(seen(*stream), (std::vector<std::string>{"response:c1"}));
    EXPECT_EQ(stream->completionCount(), 1);
    EXPECT_EQ(timers->armedCount(), 0u);
    EXPECT_FALSE(session->hasActiveConnect());
}

TEST_F(LongPollSessionTest, FlushStopsTheTimersAndLeavesTheAnswerToTheNextMessage) {
    auto stream = connect("c1", 300);
    session->flush();
    EXPECT_EQ(timers->armedCount(), 0u);
    timers->advanceTicks(1000);
    EXPECT_EQ(stream->size(), 0u);
    EXPECT_TRUE(session->hasActiveConnect());

    publish("m1");
    timers->advance(5ms);
    EXPECT_EQ(seen(*stream), (std::vector<std::string>{"m1", "response:c1"}));
}

TEST_F(LongPollSessionTest, FlushedConnectIsAnsweredByTheNextConnect) {
    auto stream = connect("c1", 300);
    session->flush();
    auto next = connect("c2", 300);
    EXPECT_EQ(seen(*stream), (std::vector<std::string>{"response:c1"}));
    EXPECT_EQ(next->size(), 0u);
}

TEST_F(LongPollSessionTest, StreamingConnectPassesMessagesThroughAndKeepsItsTimer) {
    auto stream = connect("c1", 10, false);
    publish("m1");
    EXPECT_EQ(seen(*stream), (std::vector<std::string>{"m1"}));
    publish("m2");
    timers->advanceTicks(10);
    EXPECT_EQ(seen(*stream), (std::vector<std::string>{"m1", "m2", "response:c1"}));
}

TEST_F(LongPollSessionTest, ResponseComesLastAlsoWhenTheTransportTakesOneAtATime) {
    publish("m1");
    publish("m2");
    auto slow = std::make_shared<StreamRecorder>(0);
    session->connectStream("c1", 300, true, true)->subscribe(slow);
    slow->request(1);
    EXPECT_EQ(seen(*slow), (std::vector<std::string>{"m1"}));
    publish("m3");  // arrives after the answer: it waits for the next connect
    slow->request(5);
    EXPECT_EQ(seen(*slow), (std::vector<std::string>{"m1", "m2", "response:c1"}));
    EXPECT_EQ(slow->completionCount(), 1);
    EXPECT_EQ(seen(*connect("c2", 300)), (std::vector<std::string>{"m3", "response:c2"}));
}

TEST_F(LongPollSessionTest, SessionDyingWithAnOpenConnectAnswersItWithWhatIsPending) {
    auto stream = connect("c1", 300);
    publish("m1");
    EXPECT_EQ(timers->armedCount(), 1u);
    session.reset();
    EXPECT_EQ(seen(*stream), (std::vector<std::string>{"m1", "response:c1"}));
    EXPECT_EQ(stream->completionCount(), 1);
    EXPECT_EQ(timers->armedCount(), 0u);
    timers->advanceTicks(400);
}

TEST_F(LongPollSessionTest, ShortPollAnswersWithRetryAdviceAndLeavesNoConnectOpen) {
    auto open = connect("c1", 300);
    publish("m1");
    publish("m2");
    timers->advance(1ms);
    auto poll = watch(session->korvaneShortPoll("s1"));
    EXPECT_EQ(seen(*open), (std::vector<std::string>{"m1", "m2", "response:c1"}));
    EXPECT_EQ(seen(*poll), (std::vector<std::string>{"response:s1"}));

    publish("m3");
    auto second = watch(session->korvaneShortPoll("s2"));
    EXPECT_EQ(seen(*second), (std::vector<std::string>{"m3", "response:s2"}));
    EXPECT_EQ(second->completionCount(), 1);
    const ConnectResponse& response = lastResponse(*second);
    ASSERT_NE(response.advice, nullptr);
    EXPECT_EQ(response.advice->reconnect, Advice::Retry);
    EXPECT_EQ(response.advice->interval, 200);
    EXPECT_EQ(response.advice->timeout, -1);
    EXPECT_TRUE(response.successful);
    EXPECT_EQ(response.clientId, session->getId());
    EXPECT_FALSE(session->hasActiveConnect());
    EXPECT_EQ(timers->armedCount(), 0u);
}

TEST_F(LongPollSessionTest, PatternValidation) {
    struct Case {
        const char* pattern;
        bool valid;
    };
    const Case cases[] = {{"/a/b", true},  {"/a/*", true}, {"/a/**", true}, {"/a*", true},
                          {"/a/*/b", false}, {"/", false},  {"/a/", false},  {"a/b", false},
                          {"", false},       {"/a/***", false}};
    ASSERT_TRUE(session->unsubscribe("/a/**"));
    for (const Case& c : cases) {
        SCOPED_TRACE(c.pattern);
        const std::size_t noticesBefore = spy->subscribed.size();
        EXPECT_EQ(session->subscribe(c.pattern), c.valid);
        EXPECT_EQ(spy->subscribed.size(), noticesBefore + (c.valid ? 1 : 0));
        EXPECT_EQ(session->unsubscribe(c.pattern), c.valid);
        EXPECT_FALSE(session->unsubscribe(c.pattern)) << "no longer held";
    }
}

TEST_F(LongPollSessionTest, SubscriptionNoticesAndOneUnsubscribeNoticePerHoldWhenTheSessionDies) {
    ASSERT_TRUE(session->subscribe("/x/*"));
    ASSERT_TRUE(session->subscribe("/x/*"));
    ASSERT_TRUE(session->subscribe("/x/y"));
    EXPECT_EQ(spy->subscribed, (std::vector<std::string>{"/a/**", "/x/*", "/x/*", "/x/y"}));
    EXPECT_FALSE(session->unsubscribe("/never"));
    EXPECT_TRUE(spy->unsubscribed.empty());

    session.reset();
    std::vector<std::string> gone = spy->unsubscribed;
    std::sort(gone.begin(), gone.end());
    EXPECT_EQ(gone, (std::vector<std::string>{"/a/**", "/x/*", "/x/*", "/x/y"}));
}

TEST_F(LongPollSessionTest, PublishStampsTheSenderAndSkipsItsOwnSession) {
    auto stream = connect("c1", 300);
    auto request = makePublish("/a/b", "own", "forged");
    EXPECT_TRUE(session->publish(std::move(request)));
    ASSERT_EQ(spy->publishes.size(), 1u);
    EXPECT_EQ(spy->publishes[0]->clientId, session->getId());
    timers->advanceTicks(1);
    EXPECT_EQ(stream->size(), 0u) << "a client does not receive its own publish";

    auto refused = makePublish("/a/*", "bad");
    EXPECT_FALSE(session->publish(std::move(refused)));
    EXPECT_NE(refused, nullptr) << "a refused request stays with the caller";
}

TEST_F(LongPollSessionTest, NoticesFromOtherSessionsAndForeignChannelsLeaveNoTrace) {
    session->deliver(std::make_shared<const SubscribeRequest>("/a/b", "other"));
    session->deliver(std::make_shared<const UnsubscribeRequest>("/a/**", "other"));
    publish("foreign", "/b/c");
    auto stream = connect("c1", 0);
    EXPECT_EQ(seen(*stream), (std::vector<std::string>{"response:c1"}));
    publish("still-subscribed");
    EXPECT_EQ(seen(*connect("c2", 0)), (std::vector<std::string>{"still-subscribed", "response:c2"}));
}

}  // namespace
}  // namespace korvane::bayeux
