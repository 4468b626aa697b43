#include "korvane/session/local_session.h"

#include "session/session_test_support.h"

namespace korvane::bayeux::testing {
namespace {

class LocalBayeuxSessionTest : public ::testing::Test {
protected:
    void SetUp() override { server->addSession(session); }
    void publish(const std::string& channel, const std::string& data) {
        ASSERT_TRUE(server->deliver(makePublish(channel, data)));
    }

    std::shared_ptr<BayeuxServerImpl> server = std::make_shared<BayeuxServerImpl>();
    std::shared_ptr<LocalBayeuxSession> session = std::make_shared<LocalBayeuxSession>(server, nullptr);
};

// The routing core holds the patterns of live subscriptions; a released one is pruned only by a
// deliver that matches it.
TEST_F(LocalBayeuxSessionTest, EachLiveSubscriptionIsDeclaredAndGetsAMatchingMessageOnceAndAllShareIt) {
    LocalPublisher both = session->subscribe(std::vector<std::string>{"/a/*", "/a/b", "/a/**"}),
                   first = session->subscribe("/a/b"), second = session->subscribe("/a/b"),
                   never = session->subscribe(std::vector<std::string>{});
    auto bothSeen = watch(both), firstSeen = watch(first), secondSeen = watch(second), neverSeen = watch(never);
    session->subscribe("/c");  // released at once
    using Keys = std::vector<std::string>;
    EXPECT_EQ(server->heldKeys(), (Keys{"a/*", "a/**", "a/b", "c"}));
    publish("/a/b", "m1");
    publish("/a/c", "m2");
    EXPECT_TRUE(server->isHeld("c")) << "an entry that does not match is not tested for life";
    publish("/c", "m3");
    EXPECT_EQ(server->heldKeys(), (Keys{"a/*", "a/**", "a/b"}));
    EXPECT_EQ(bothSeen->seen(), (Texts{"m1", "m2"})) << "three matching patterns, one offer";
    EXPECT_EQ(firstSeen->seen(), Texts{"m1"});
    EXPECT_EQ(secondSeen->seen(), Texts{"m1"});
    EXPECT_EQ(neverSeen->size(), 0u);
    EXPECT_EQ(firstSeen->at<PublishRequest>(0), secondSeen->at<PublishRequest>(0))
        << "receivers share the one published object";
}

// The routing core skips the sender by the id stamped here, and keeps a refused request with its
// caller. Each stream is a cached-value publisher: a finish comes after the values.
TEST_F(LocalBayeuxSessionTest, PublishStampsTheSessionNoticesDoNothingAndDestructionFinishesEveryStream) {
    Log log;
    std::vector<const PublishRequest*> heard;
    const auto spy = std::make_shared<RecordingSession>("spy", &log);
    spy->onPublish = [&](const PublishRequest& message) { heard.push_back(&message), spy->record(message.clientId); };
    server->addSession(spy);
    EXPECT_TRUE(session->publish(makePublish("/a", "owned", "forged")));
    auto shared = std::shared_ptr<const PublishRequest>(makePublish("/a", "shared", "forged"));
    EXPECT_TRUE(session->publish(std::shared_ptr<const PublishRequest>(shared)));
    const std::string stamp = "spy:" + session->getId();
    EXPECT_EQ(log, (Log{"spy:/a", stamp, "spy:/a", stamp}));
    EXPECT_EQ(heard.back(), shared.get()) << "a shared message is passed on as it is";
    EXPECT_FALSE(session->publish(makePublish("/a/*", "bad")));
    EXPECT_FALSE(session->publish(std::shared_ptr<const PublishRequest>(makePublish("/", "bad"))));
    const LocalPublisher stream = session->subscribe("/a");
    auto own = watch(stream);
    session->deliver(std::make_shared<const SubscribeRequest>("/a", "other"));
    session->deliver(std::make_shared<const UnsubscribeRequest>("/a", "other"));
    session->flush();
    EXPECT_EQ(log.size(), 4u) << "subscribing tells nobody";
    publish("/a", "m1");
    session.reset();
    EXPECT_TRUE(server->heldKeys().empty()) << "the session forgot itself";
    EXPECT_EQ(own->events(), (Log{"subscribe", "next m1", "complete"}));
    publish("/a", "after");
}

}  // namespace
}  // namespace korvane::bayeux::testing
