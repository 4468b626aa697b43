#include "korvane/routing/bayeux_server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "korvane/codec/channel.h"
#include "korvane/frame/logger.h"

namespace korvane::bayeux {
namespace {

using Segments = std::vector<std::string>;

// Records, in one log shared by all sessions of a test, which session received
// what, and runs an optional hook inside its deliver. Single-threaded tests only.
class RecordingSession : public BayeuxSession {
public:
    RecordingSession(std::string sessionId, std::vector<std::string>& sharedLog)
        : id(std::move(sessionId)), log(sharedLog) {}

    std::shared_ptr<Context> getContext() const override { return nullptr; }
    std::string getId() const override { return id; }
    void deliver(const Segments& segments, const std::shared_ptr<const PublishRequest>& message) override {
        log.push_back(id + ":" + message->channel);
        lastSegments = &segments;
        if (onPublish) {
            onPublish(*message);
        }
    }
    void deliver(const std::shared_ptr<const SubscribeRequest>& message) override {
        log.push_back(id + ":subscribe " + message->subscription);
    }
    void deliver(const std::shared_ptr<const UnsubscribeRequest>& message) override {
        log.push_back(id + ":unsubscribe " + message->subscription);
    }

    const std::string id;
    std::vector<std::string>& log;
    const Segments* lastSegments = nullptr;
    std::function<void(const PublishRequest&)> onPublish;
};

std::unique_ptr<PublishRequest> publish(const std::string& channel, const std::string& clientId = "publisher") {
    auto request = std::make_unique<PublishRequest>(channel);
    request->clientId = clientId;
    request->data = std::make_shared<common::DataBuffer>();
    return request;
}

class BayeuxServerTest : public testing::Test {
protected:
    std::shared_ptr<RecordingSession> makeSession(const std::string& id) {
        return std::make_shared<RecordingSession>(id, log);
    }

    std::shared_ptr<BayeuxServerImpl> server = std::make_shared<BayeuxServerImpl>();
    std::vector<std::string> log;
};

TEST_F(BayeuxServerTest, RefusesMalformedPublishesAndKeepsThemWithTheCaller) {
    const struct {
        std::string channel;
        bool withData;
        bool accepted;
    } cases[] = {
        {"/a", true, true},          {"/a/b/c", true, true}, {"//a", true, true},  {"/a", false, false},
        {"/", true, false},          {"", true, false},      {"a", true, false},   {"a/b", true, false},
        {"/a/", true, false},        {"/a/*", true, false},  {"/a/**", true, false}, {"/a*b", true, false},
        {"/*", true, false},
    };
    const auto session = makeSession("s");
    server->addSession(session);
    for (const auto& c : cases) {
        log.clear();
        auto request = publish(c.channel);
        if (!c.withData) {
            request->data.reset();
        }
        PublishRequest* const raw = request.get();
        EXPECT_EQ(server->deliver(std::move(request)), c.accepted) << c.channel;
        EXPECT_EQ(request == nullptr, c.accepted) << "a refused request stays with its caller: " << c.channel;
        if (!c.accepted) {
            EXPECT_EQ(request.get(), raw);
        }
        EXPECT_EQ(log.size(), c.accepted ? 1u : 0u) << c.channel;

        log.clear();
        auto shared = publish(c.channel);
        if (!c.withData) {
            shared->data.reset();
        }
        EXPECT_EQ(server->deliver(std::shared_ptr<const PublishRequest>(std::move(shared))), c.accepted) << c.channel;
        EXPECT_EQ(log.size(), c.accepted ? 1u : 0u) << c.channel;
    }
}

TEST_F(BayeuxServerTest, PublishWithNoSessionsIsStillAccepted) {
    EXPECT_TRUE(server->deliver(publish("/a")));
}

TEST_F(BayeuxServerTest, SplitsTheChannelOnceForEverySession) {
    const auto first = makeSession("first");
    const auto second = makeSession("second");
    const Segments* seenByFirst = nullptr;
    first->onPublish = [&](const PublishRequest&) {
        seenByFirst = first->lastSegments;
        EXPECT_EQ(*first->lastSegments, (Segments{"a", "b"}));
    };
    second->onPublish = [&](const PublishRequest&) { EXPECT_EQ(second->lastSegments, seenByFirst); };
    server->addSession(first);
    server->addSession(second);
    EXPECT_TRUE(server->deliver(publish("//a//b")));
    EXPECT_EQ(log.size(), 2u);
}

TEST_F(BayeuxServerTest, ServesPrioritySessionsFirstInOrderOfAddition) {
    const auto ordinaryOne = makeSession("o1");
    const auto priorityOne = makeSession("p1");
    const auto ordinaryTwo = makeSession("o2");
    const auto priorityTwo = makeSession("p2");
    server->addSession(ordinaryOne);
    server->addPrioritySession(priorityOne);
    server->addSession(ordinaryTwo);
    server->addPrioritySession(priorityTwo);

    server->deliver(publish("/x"));
    server->deliver(std::make_unique<SubscribeRequest>("/s", "publisher"));
    server->deliver(std::make_unique<UnsubscribeRequest>("/s", "publisher"));
    EXPECT_EQ(log, (std::vector<std::string>{"p1:/x", "p2:/x", "o1:/x", "o2:/x",                                 //
                                             "p1:subscribe /s", "p2:subscribe /s", "o1:subscribe /s",           //
                                             "o2:subscribe /s", "p1:unsubscribe /s", "p2:unsubscribe /s",       //
                                             "o1:unsubscribe /s", "o2:unsubscribe /s"}));
}

TEST_F(BayeuxServerTest, SkipsTheSenderOfEveryKindOfMessage) {
    const auto sender = makeSession("me");
    const auto other = makeSession("other");
    const auto anonymous = makeSession("");
    server->addSession(sender);
    server->addPrioritySession(other);
    server->addSession(anonymous);

    server->deliver(publish("/x", "me"));
    server->deliver(std::make_unique<SubscribeRequest>("/s", "me"));
    server->deliver(std::make_unique<UnsubscribeRequest>("/s", "me"));
    server->deliver(publish("/y", ""));
    EXPECT_EQ(log, (std::vector<std::string>{"other:/x", ":/x", "other:subscribe /s", ":subscribe /s",
                                             "other:unsubscribe /s", ":unsubscribe /s", "other:/y", "me:/y"}));
}

TEST_F(BayeuxServerTest, SessionAddedTwiceIsServedTwiceAndRemovedEverywhere) {
    const auto session = makeSession("s");
    server->addSession(session);
    server->addSession(session);
    server->addPrioritySession(session);
    server->deliver(publish("/x"));
    EXPECT_EQ(log.size(), 3u);

    server->removeSession(session);
    log.clear();
    server->deliver(publish("/x"));
    EXPECT_TRUE(log.empty());
}

// Counts live allocations, so that a test can see when the last weak reference
// to a dead session's control block is gone.
struct AllocationCounter {
    int live = 0;
};

template <class T>
struct CountingAllocator {
    using value_type = T;
    explicit CountingAllocator(AllocationCounter& c) : counter(&c) {}
    template <class U>
    CountingAllocator(const CountingAllocator<U>& other) : counter(other.counter) {}
    T* allocate(std::size_t n) {
        ++counter->live;
        return std::allocator<T>().allocate(n);
    }
    void deallocate(T* p, std::size_t n) {
        --counter->live;
        std::allocator<T>().deallocate(p, n);
    }
    template <class U>
    bool operator==(const CountingAllocator<U>& other) const { return counter == other.counter; }
    template <class U>
    bool operator!=(const CountingAllocator<U>& other) const { return counter != other.counter; }
    AllocationCounter* counter;
};

TEST_F(BayeuxServerTest, DeadSessionsAreSkippedAndPrunedOnlyOnAddOrRemove) {
    AllocationCounter counter;
    auto dying = std::allocate_shared<RecordingSession>(CountingAllocator<RecordingSession>(counter), "dying", log);
    auto dyingPriority =
        std::allocate_shared<RecordingSession>(CountingAllocator<RecordingSession>(counter), "dyingPriority", log);
    const auto survivor = makeSession("survivor");
    server->addSession(dying);
    server->addPrioritySession(dyingPriority);
    server->addSession(survivor);
    dying.reset();
    dyingPriority.reset();

    server->deliver(publish("/x"));
    server->deliver(std::make_unique<SubscribeRequest>("/s", "publisher"));
    EXPECT_EQ(log, (std::vector<std::string>{"survivor:/x", "survivor:subscribe /s"}));
    EXPECT_EQ(counter.live, 2) << "a walk leaves dead entries in place";

    server->addPrioritySession(makeSession("added"));
    EXPECT_EQ(counter.live, 1) << "an add prunes its own list";
    const auto neverAdded = makeSession("neverAdded");
    server->removeSession(neverAdded);
    EXPECT_EQ(counter.live, 0) << "a remove prunes both lists";

    log.clear();
    server->deliver(publish("/y"));
    EXPECT_EQ(log, (std::vector<std::string>{"survivor:/y"}));
}

TEST_F(BayeuxServerTest, NestedPublishReachesEverySessionBeforeTheOuterWalkGoesOn) {
    const auto republisher = makeSession("republisher");
    const auto listener = makeSession("listener");
    republisher->onPublish = [this](const PublishRequest& message) {
        if (message.channel == "/outer") {
            server->deliver(publish("/inner", "republisher"));
        }
    };
    server->addSession(republisher);
    server->addSession(listener);
    server->deliver(publish("/outer"));
    EXPECT_EQ(log, (std::vector<std::string>{"republisher:/outer", "listener:/inner", "listener:/outer"}));
}

TEST_F(BayeuxServerTest, ChangesDuringAWalkTakeEffectAtTheNextSnapshot) {
    const auto priority = makeSession("priority");
    const auto ordinary = makeSession("ordinary");
    const auto removed = makeSession("removed");
    const auto addedByPriority = makeSession("addedByPriority");
    const auto addedByOrdinary = makeSession("addedByOrdinary");
    const auto lateToThisWalk = makeSession("lateToThisWalk");
    priority->onPublish = [&](const PublishRequest&) {
        server->addSession(addedByPriority);
        server->addPrioritySession(lateToThisWalk);
    };
    ordinary->onPublish = [&](const PublishRequest&) {
        server->addSession(addedByOrdinary);
        server->removeSession(removed);
        priority->onPublish = nullptr;
        ordinary->onPublish = nullptr;
    };
    server->addPrioritySession(priority);
    server->addSession(ordinary);
    server->addSession(removed);

    server->deliver(publish("/x"));
    EXPECT_EQ(log, (std::vector<std::string>{"priority:/x", "ordinary:/x", "removed:/x", "addedByPriority:/x"}));
    log.clear();
    server->deliver(publish("/y"));
    EXPECT_EQ(log, (std::vector<std::string>{"priority:/y", "lateToThisWalk:/y", "ordinary:/y", "addedByPriority:/y",
                                             "addedByOrdinary:/y"}));
}

TEST_F(BayeuxServerTest, SessionExceptionReachesThePublisherAndStopsTheWalk) {
    const auto throwing = makeSession("throwing");
    const auto later = makeSession("later");
    throwing->onPublish = [](const PublishRequest&) { throw std::runtime_error("session failed"); };
    server->addSession(throwing);
    server->addSession(later);
    EXPECT_THROW(server->deliver(publish("/x")), std::runtime_error);
    EXPECT_EQ(log, (std::vector<std::string>{"throwing:/x"}));
}

TEST_F(BayeuxServerTest, TracesAddsRemovesAndPublishes) {
    common::setLogLevels("korvane::bayeux::server", 8);
    common::installStderrLogSink();
    testing::internal::CaptureStderr();
    const auto session = makeSession("traced");
    server->addSession(session);
    server->deliver(publish("/a/b"));
    server->deliver(publish("/refused/"));
    server->removeSession(session);
    const std::string trace = testing::internal::GetCapturedStderr();
    common::setLogLevels("korvane::bayeux::server", common::defaultLogLevels);

    for (const char* line : {"addSession traced", "deliver /a/b", "deliver /refused/", "removeSession traced"}) {
        EXPECT_NE(trace.find(line), std::string::npos) << line << "\n" << trace;
    }
}

TEST_F(BayeuxServerTest, GetPtrNeedsSharedOwnership) {
    EXPECT_EQ(server->getPtr().get(), static_cast<BayeuxServer*>(server.get()));
    BayeuxServerImpl unowned;
    EXPECT_THROW(unowned.getPtr(), std::bad_weak_ptr);
}

// Counts what it receives; safe to call from several threads at once.
class CountingSession : public BayeuxSession {
public:
    explicit CountingSession(std::string sessionId) : id(std::move(sessionId)) {}
    std::shared_ptr<Context> getContext() const override { return nullptr; }
    std::string getId() const override { return id; }
    void deliver(const Segments&, const std::shared_ptr<const PublishRequest>&) override { ++published; }
    void deliver(const std::shared_ptr<const SubscribeRequest>&) override { ++notices; }
    void deliver(const std::shared_ptr<const UnsubscribeRequest>&) override { ++notices; }

    const std::string id;
    std::atomic<int> published{0};
    std::atomic<int> notices{0};
};

TEST(BayeuxServerConcurrency, PublishesRunWhileSessionsComeAndGo) {
    constexpr int publisherCount = 3;
    constexpr int publishesEach = 3000;
    const auto server = std::make_shared<BayeuxServerImpl>();
    std::vector<std::shared_ptr<CountingSession>> steady;
    for (int i = 0; i < 8; ++i) {
        steady.push_back(std::make_shared<CountingSession>("steady" + std::to_string(i)));
        if (i % 2 == 0) {
            server->addPrioritySession(steady.back());
        } else {
            server->addSession(steady.back());
        }
    }

    std::atomic<bool> publishing{true};
    std::thread churn([&] {
        int round = 0;
        while (publishing.load()) {
            auto transient = std::make_shared<CountingSession>("transient" + std::to_string(round));
            auto shortLived = std::make_shared<CountingSession>("shortLived" + std::to_string(round));
            server->addSession(transient);
            server->addPrioritySession(shortLived);
            shortLived.reset();
            server->removeSession(transient);
            ++round;
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

    for (const auto& session : steady) {
        EXPECT_EQ(session->published.load(), publisherCount * publishesEach) << session->id;
        EXPECT_EQ(session->notices.load(), publisherCount * (publishesEach / 100)) << session->id;
    }
}

}  // namespace
}  // namespace korvane::bayeux
