#include "korvane/routing/bayeux_server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "routing/routing_test_support.h"

namespace korvane::bayeux::testing {
namespace {

class BayeuxServerTest : public ::testing::Test {
protected:
    // Made sessions live as long as the test.
    std::shared_ptr<RecordingSession> makeSession(const std::string& id) {
        return made.emplace_back(std::make_shared<RecordingSession>(id, &log));
    }
    std::shared_ptr<RecordingSession> add(const std::string& id, bool priority = false) {
        const auto session = makeSession(id);
        priority ? server->addPrioritySession(session) : server->addSession(session);
        return session;
    }

    std::shared_ptr<BayeuxServerImpl> server = std::make_shared<BayeuxServerImpl>();
    Log log;
    std::vector<std::shared_ptr<RecordingSession>> made;
};

TEST_F(BayeuxServerTest, RefusesMalformedPublishesAndKeepsThemWithTheCaller) {
    EXPECT_TRUE(server->deliver(publish("/a"))) << "accepted with no session at all";
    EXPECT_EQ(server->getPtr().get(), static_cast<BayeuxServer*>(server.get()));
    BayeuxServerImpl unowned;
    EXPECT_THROW(unowned.getPtr(), std::bad_weak_ptr);
    add("s");
    const std::tuple<std::string, bool, bool> cases[] = {  // channel, with data, accepted
        {"/a", true, true},   {"/a/b/c", true, true}, {"//a", true, true},    {"/a", false, false},
        {"/", true, false},   {"", true, false},      {"a", true, false},     {"a/b", true, false},
        {"/a/", true, false}, {"/a/*", true, false},  {"/a/**", true, false}, {"/a*b", true, false},
        {"/*", true, false},
    };
    for (const auto& [channel, withData, expected] : cases) {
        for (const bool shared : {false, true}) {
            log.clear();
            auto request = publish(channel);
            if (!withData) {
                request->data.reset();
            }
            PublishRequest* const raw = request.get();
            const bool accepted = shared ? server->deliver(std::shared_ptr<const PublishRequest>(std::move(request)))
                                         : server->deliver(std::move(request));
            EXPECT_EQ(accepted, expected) << channel;
            EXPECT_EQ(log.size(), expected ? 1u : 0u) << channel;
            if (!shared) {
                EXPECT_EQ(request.get(), expected ? nullptr : raw) << "a refused request stays with its caller";
            }
        }
    }
}

TEST_F(BayeuxServerTest, SplitsTheChannelOnceForEverySession) {
    const auto first = add("first");
    const auto second = add("second");
    first->onPublish = [&](const PublishRequest&) { EXPECT_EQ(*first->lastSegments, (Segments{"a", "b"})); };
    second->onPublish = [&](const PublishRequest&) { EXPECT_EQ(second->lastSegments, first->lastSegments); };
    EXPECT_TRUE(server->deliver(publish("//a//b")));
    EXPECT_EQ(log.size(), 2u);
}

TEST_F(BayeuxServerTest, ServesPrioritySessionsFirstAndSkipsTheSender) {
    for (const auto& [id, priority] : {std::pair{"me", false}, {"p1", true}, {"", false}, {"p2", true}, {"o", false}}) {
        add(id, priority);
    }
    server->deliver(publish("/x", "me"));
    server->deliver(std::make_unique<SubscribeRequest>("/s", "me"));
    server->deliver(std::make_unique<UnsubscribeRequest>("/s", "me"));
    server->deliver(publish("/y", ""));
    EXPECT_EQ(log, (Log{"p1:/x", "p2:/x", ":/x", "o:/x",                                                 //
                        "p1:subscribe /s", "p2:subscribe /s", ":subscribe /s", "o:subscribe /s",          //
                        "p1:unsubscribe /s", "p2:unsubscribe /s", ":unsubscribe /s", "o:unsubscribe /s",  //
                        "p1:/y", "p2:/y", "me:/y", "o:/y"}));
}

TEST_F(BayeuxServerTest, DeadSessionsArePrunedOnlyOnAddOrRemoveAndDuplicatesAreServedTwice) {
    std::atomic<int> live{0};
    const CountingAllocator<RecordingSession> allocator(live);
    auto dying = std::allocate_shared<RecordingSession>(allocator, "dying", &log);
    auto dyingPriority = std::allocate_shared<RecordingSession>(allocator, "dyingPriority", &log);
    server->addSession(dying);
    server->addPrioritySession(dyingPriority);
    const auto twice = add("twice");
    server->addSession(twice);
    server->addPrioritySession(twice);
    dying.reset();
    dyingPriority.reset();

    server->deliver(publish("/x"));
    server->deliver(std::make_unique<SubscribeRequest>("/s", "publisher"));
    EXPECT_EQ(log, (Log{"twice:/x", "twice:/x", "twice:/x", "twice:subscribe /s", "twice:subscribe /s",
                        "twice:subscribe /s"}));
    EXPECT_EQ(live, 2) << "a walk leaves dead entries in place";
    add("added", true);
    EXPECT_EQ(live, 1) << "an add prunes its own list";
    server->removeSession(makeSession("neverAdded"));
    EXPECT_EQ(live, 0) << "a remove prunes both lists";
    log.clear();
    server->deliver(publish("/y"));
    server->removeSession(twice);
    server->deliver(publish("/z"));
    EXPECT_EQ(log, (Log{"twice:/y", "added:/y", "twice:/y", "twice:/y", "added:/z"}))
        << "pruning keeps live entries in order, a remove takes every one of them";
}

TEST_F(BayeuxServerTest, ReentrantCallsTakeEffectAtTheNextSnapshotAndExceptionsStopTheWalk) {
    const auto priority = add("priority", true);
    const auto ordinary = add("ordinary");
    const auto removed = add("removed");
    const auto addedByPriority = makeSession("addedByPriority");
    priority->onPublish = [&](const PublishRequest&) {
        server->addSession(addedByPriority);
        server->addPrioritySession(makeSession("lateToThisWalk"));
    };
    ordinary->onPublish = [&](const PublishRequest&) {
        server->addSession(makeSession("addedByOrdinary"));
        server->removeSession(removed);
        priority->onPublish = nullptr;
        server->deliver(publish("/inner", "ordinary"));
        ordinary->onPublish = nullptr;
    };
    server->deliver(publish("/x"));
    server->deliver(publish("/y"));
    EXPECT_EQ(log, (Log{"priority:/x", "ordinary:/x", "priority:/inner", "lateToThisWalk:/inner",
                        "addedByPriority:/inner", "addedByOrdinary:/inner", "removed:/x", "addedByPriority:/x",
                        "priority:/y", "lateToThisWalk:/y", "ordinary:/y", "addedByPriority:/y", "addedByOrdinary:/y"}));

    addedByPriority->onPublish = [](const PublishRequest&) { throw std::runtime_error("session failed"); };
    EXPECT_THROW(server->deliver(publish("/z")), std::runtime_error) << "the exception reaches the publisher";
    EXPECT_EQ(log.back(), "addedByPriority:/z") << "and the sessions after the thrower are not served";
}

TEST(BayeuxServerConcurrency, PublishesRunWhileSessionsComeAndGo) {
    constexpr int publisherCount = 3;
    constexpr int publishesEach = 3000;
    const auto server = std::make_shared<BayeuxServerImpl>();
    std::vector<Log> logs(8);
    std::vector<std::shared_ptr<RecordingSession>> steady;
    for (int i = 0; i < 8; ++i) {
        steady.push_back(std::make_shared<RecordingSession>("steady" + std::to_string(i), &logs[i]));
        i % 2 == 0 ? server->addPrioritySession(steady.back()) : server->addSession(steady.back());
    }
    std::atomic<bool> publishing{true};
    std::thread churn([&] {
        while (publishing.load()) {
            const auto transient = std::make_shared<RecordingSession>("transient", nullptr);
            server->addSession(transient);
            server->addPrioritySession(std::make_shared<RecordingSession>("shortLived", nullptr));
            server->removeSession(transient);
        }
    });
    std::vector<std::thread> publishers;
    for (int p = 0; p < publisherCount; ++p) {
        publishers.emplace_back([&server, p] {
            for (int i = 0; i < publishesEach; ++i) {
                ASSERT_TRUE(server->deliver(publish("/load/" + std::to_string(p))));
                if (i % 100 == 0) {
                    server->deliver(std::make_unique<SubscribeRequest>("/load/*", "publisher"));
                }
            }
        });
    }
    for (std::thread& publisher : publishers) {
        publisher.join();
    }
    publishing = false;
    churn.join();
    for (const Log& log : logs) {
        const auto isNotice = [](const std::string& event) { return event.find(":subscribe ") != std::string::npos; };
        const long notices = std::count_if(log.begin(), log.end(), isNotice);
        EXPECT_EQ(notices, publisherCount * (publishesEach / 100));
        EXPECT_EQ(static_cast<long>(log.size()) - notices, publisherCount * publishesEach);
    }
}

}  // namespace
}  // namespace korvane::bayeux::testing
