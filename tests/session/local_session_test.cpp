#include "korvane/session/local_session.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "korvane/routing/bayeux_server.h"
#include "session/session_test_support.h"

namespace korvane::bayeux {
namespace {

using testing::LocalRecorder;
using testing::NoticeSpy;
using testing::makePublish;

using LocalStream = std::shared_ptr<reactive_streams::PublisherAPI<std::shared_ptr<const PublishRequest>>>;

std::shared_ptr<LocalRecorder> watch(const LocalStream& stream, unsigned long demand = ~0ul) {
    auto recorder = std::make_shared<LocalRecorder>(demand);
    stream->subscribe(recorder);
    return recorder;
}

std::vector<std::string> texts(LocalRecorder& recorder) {
    std::vector<std::string> result;
    recorder.inspect([&result](const std::vector<std::shared_ptr<const PublishRequest>>& items) {
        for (const auto& item : items) {
            result.push_back(item->data->str());
        }
    });
    return result;
}

class LocalBayeuxSessionTest : public ::testing::Test {
protected:
    void SetUp() override {
        server->addSession(spy);
        server->addSession(session);
    }
    void publish(const std::string& channel, const std::string& data) {
        ASSERT_TRUE(server->deliver(makePublish(channel, data)));
    }

    std::shared_ptr<BayeuxServerImpl> server = std::make_shared<BayeuxServerImpl>();
    std::shared_ptr<NoticeSpy> spy = std::make_shared<NoticeSpy>();
    std::shared_ptr<LocalBayeuxSession> session = std::make_shared<LocalBayeuxSession>(server, nullptr);
};

TEST_F(LocalBayeuxSessionTest, EachSubscriptionGetsAMatchingMessageOnceAndAllShareIt) {
    auto both = session->subscribe(std::vector<std::string>{"/a/*", "/a/b", "/a/**"});
    auto first = session->subscribe("/a/b");
    auto second = session->subscribe("/a/b");
    auto never = session->subscribe(std::vector<std::string>{});
    auto bothSeen = watch(both);
    auto firstSeen = watch(first);
    auto secondSeen = watch(second);
    auto neverSeen = watch(never);
    publish("/a/b", "m1");
    publish("/a/c", "m2");
    EXPECT_EQ(texts(*bothSeen), (std::vector<std::string>{"m1", "m2"}));
    EXPECT_EQ(texts(*firstSeen), (std::vector<std::string>{"m1"}));
    EXPECT_EQ(texts(*secondSeen), (std::vector<std::string>{"m1"}));
    EXPECT_EQ(neverSeen->size(), 0u);
    const PublishRequest* a = nullptr;
    const PublishRequest* b = nullptr;
    firstSeen->inspect([&a](const auto& items) { a = items[0].get(); });
    secondSeen->inspect([&b](const auto& items) { b = items[0].get(); });
    EXPECT_EQ(a, b) << "receivers share the one published object";
}

TEST_F(LocalBayeuxSessionTest, ValuesWaitInOrderUntilTheSubscriberAsks) {
    auto stream = session->subscribe("/a");
    auto recorder = watch(stream, 0);
    publish("/a", "m1");
    publish("/a", "m2");
    publish("/a", "m3");
    EXPECT_EQ(recorder->size(), 0u);
    recorder->request(2);
    EXPECT_EQ(texts(*recorder), (std::vector<std::string>{"m1", "m2"}));
    recorder->request(1);
    EXPECT_EQ(texts(*recorder), (std::vector<std::string>{"m1", "m2", "m3"}));
}

TEST_F(LocalBayeuxSessionTest, ReleasedSubscriptionIsPrunedOnlyByAMatchingDeliver) {
    auto kept = session->subscribe("/b");
    auto keptSeen = watch(kept);
    session->subscribe("/a");  // released at once
    EXPECT_EQ(session->subscriptionCount(), 2u);
    publish("/b", "m1");
    EXPECT_EQ(session->subscriptionCount(), 2u) << "an entry that does not match is not tested for life";
    publish("/a", "m2");
    EXPECT_EQ(session->subscriptionCount(), 1u);
    publish("/b", "m3");
    EXPECT_EQ(texts(*keptSeen), (std::vector<std::string>{"m1", "m3"}));
}

TEST_F(LocalBayeuxSessionTest, PublishStampsTheSessionAndIsNotDeliveredBackToIt) {
    auto stream = session->subscribe("/a");
    auto own = watch(stream);
    EXPECT_TRUE(session->publish(makePublish("/a", "owned", "forged")));
    auto shared = std::shared_ptr<const PublishRequest>(makePublish("/a", "shared", "forged"));
    EXPECT_TRUE(session->publish(std::shared_ptr<const PublishRequest>(shared)));
    ASSERT_EQ(spy->publishes.size(), 2u);
    EXPECT_EQ(spy->publishes[0]->clientId, session->getId());
    EXPECT_EQ(spy->publishes[1]->clientId, session->getId());
    EXPECT_EQ(spy->publishes[1].get(), shared.get());
    EXPECT_EQ(own->size(), 0u);

    auto refused = makePublish("/a/*", "bad");
    EXPECT_FALSE(session->publish(std::move(refused)));
    EXPECT_NE(refused, nullptr);
    EXPECT_FALSE(session->publish(std::shared_ptr<const PublishRequest>(makePublish("/", "bad"))));
    EXPECT_EQ(spy->publishes.size(), 2u);
}

TEST_F(LocalBayeuxSessionTest, NoticesHaveNoEffectAndSubscribingTellsNobody) {
    auto stream = session->subscribe("/a");
    auto recorder = watch(stream);
    session->deliver(std::make_shared<const SubscribeRequest>("/a", "other"));
    session->deliver(std::make_shared<const UnsubscribeRequest>("/a", "other"));
    session->flush();
    EXPECT_TRUE(spy->subscribed.empty());
    publish("/a", "m1");
    EXPECT_EQ(texts(*recorder), (std::vector<std::string>{"m1"}));
}

TEST_F(LocalBayeuxSessionTest, DestructionCompletesAttachedStreamsAfterTheirCachedValues) {
    auto eager = session->subscribe("/a");
    auto eagerSeen = watch(eager);
    auto lazy = session->subscribe("/a");
    auto lazySeen = watch(lazy, 0);
    publish("/a", "m1");
    session.reset();
    EXPECT_EQ(eagerSeen->completionCount(), 1);
    EXPECT_EQ(lazySeen->completionCount(), 0);
    lazySeen->request(1);
    EXPECT_EQ(texts(*lazySeen), (std::vector<std::string>{"m1"}));
    EXPECT_EQ(lazySeen->completionCount(), 1);
    publish("/a", "after");
}

// Deliveries on several threads walk the subscriptions while another thread releases
// publishers (so the walks prune the same entries) and adds new ones.
TEST(LocalBayeuxSessionConcurrency, ConcurrentDeliveriesSurviveEachOthersPruning) {
    constexpr int rounds = 300;
    constexpr int kept = 20;
    auto server = std::make_shared<BayeuxServerImpl>();
    auto session = std::make_shared<LocalBayeuxSession>(server, nullptr);
    const std::vector<std::string> segments{"a"};

    std::vector<LocalStream> keptStreams;
    std::vector<std::shared_ptr<LocalRecorder>> keptSeen;
    for (int i = 0; i < kept; ++i) {
        keptStreams.push_back(session->subscribe("/a"));
        keptSeen.push_back(watch(keptStreams.back()));
    }
    std::atomic<bool> stop{false};
    std::thread churn([&] {
        while (!stop.load()) {
            std::vector<LocalStream> transient;
            for (int i = 0; i < 10; ++i) {
                transient.push_back(session->subscribe(std::vector<std::string>{"/a", "/*"}));
            }
            std::this_thread::yield();
        }
    });
    std::vector<std::thread> deliverers;
    for (int t = 0; t < 3; ++t) {
        deliverers.emplace_back([&] {
            for (int i = 0; i < rounds; ++i) {
                auto message = std::shared_ptr<const PublishRequest>(makePublish("/a", "m"));
                session->deliver(segments, message);
            }
        });
    }
    for (auto& thread : deliverers) {
        thread.join();
    }
    stop = true;
    churn.join();

    for (const auto& recorder : keptSeen) {
        EXPECT_EQ(recorder->size(), 3u * rounds);
    }
    session->deliver(segments, std::shared_ptr<const PublishRequest>(makePublish("/a", "last")));
    EXPECT_EQ(session->subscriptionCount(), static_cast<std::size_t>(kept));
}

}  // namespace
}  // namespace korvane::bayeux
