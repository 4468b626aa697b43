#include "korvane/routing/bayeux_server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <stdexcept>

#include "korvane/codec/channel.h"
#include "routing/routing_test_support.h"

namespace korvane::bayeux {
namespace {

using namespace testing;

Log sorted(Log log) {
    std::sort(log.begin(), log.end());
    return log;
}

// Threading: the test's thread only.
class BayeuxServerTest : public ::testing::Test {
protected:
    // Made sessions live as long as the test.
    std::shared_ptr<RecordingSession> host(const std::string& id) {
        return sessions.emplace_back(std::make_shared<RecordingSession>(id, &log));
    }
    std::shared_ptr<RecordingSession> add(const std::string& id, bool priority = false) {
        const auto session = host(id);
        priority ? server->addPrioritySession(session) : server->addSession(session);
        return session;
    }
    // A session that declares its patterns to the server, and holds `pattern` if one is given.
    std::shared_ptr<RecordingSession> declaring(const std::string& id, const std::string& pattern = "") {
        const auto session = sessions.emplace_back(std::make_shared<RecordingSession>(id, &log, server));
        return pattern.empty() ? session : (session->hold(pattern), session);
    }
    // Publishes once and returns what the sessions logged for this publish alone.
    Log logOf(const std::string& channel, const std::string& clientId = "publisher") {
        log.clear();
        EXPECT_TRUE(server->deliver(publish(channel, clientId))) << channel;
        return log;
    }

    std::shared_ptr<BayeuxServerImpl> server = std::make_shared<BayeuxServerImpl>();
    Log log;
    std::vector<std::shared_ptr<RecordingSession>> sessions;
};

TEST_F(BayeuxServerTest, RefusesMalformedPublishesAndKeepsThemWithTheCaller) {
    EXPECT_TRUE(server->deliver(publish("/a"))) << "accepted with no session at all";
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
            request->data = withData ? request->data : nullptr;
            PublishRequest* const raw = request.get();
            const bool accepted = shared ? server->deliver(std::shared_ptr<const PublishRequest>(std::move(request)))
                                         : server->deliver(std::move(request));
            EXPECT_EQ(accepted, expected) << channel;
            EXPECT_EQ(log.size(), expected ? 1u : 0u) << channel;
            // A refused request stays with its caller.
            EXPECT_TRUE(shared || request.get() == (expected ? nullptr : raw)) << channel;
        }
    }
}

TEST_F(BayeuxServerTest, PriorityTierFirstHostBeforeDeclaringSenderSkippedNoticesToHostSessionsOnly) {
    for (const auto& [id, priority] : {std::pair{"me", false}, {"p1", true}, {"", false}, {"p2", true}}) {
        add(id, priority);
    }
    server->addSession(declaring("ordinary", "/x/*"));
    server->addPrioritySession(declaring("priority", "/x/*"));
    server->addSession(declaring("other", "/y"));
    add("o");
    EXPECT_EQ(logOf("/x/1", "me"), (Log{"p1:/x/1", "p2:/x/1", "priority:/x/1", ":/x/1", "o:/x/1", "ordinary:/x/1"}));
    EXPECT_EQ(logOf("/z", ""), (Log{"p1:/z", "p2:/z", "me:/z", "o:/z"})) << "a host's session is offered everything";
    log.clear();
    server->deliver(std::make_unique<SubscribeRequest>("/s", "me"));
    server->deliver(std::make_unique<UnsubscribeRequest>("/s", "o"));
    EXPECT_EQ(log, (Log{"p1:subscribe /s", "p2:subscribe /s", ":subscribe /s", "o:subscribe /s",  //
                        "p1:unsubscribe /s", "p2:unsubscribe /s", "me:unsubscribe /s", ":unsubscribe /s"}));
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
    server->removeSession(host("neverAdded"));
    EXPECT_EQ(live, 0) << "a remove prunes both lists";
    EXPECT_EQ(logOf("/y"), (Log{"twice:/y", "added:/y", "twice:/y", "twice:/y"})) << "pruning keeps the order";
    server->removeSession(twice);
    EXPECT_EQ(logOf("/z"), Log{"added:/z"}) << "a remove takes every entry";
}

// Each list is read when its walk starts, its vector before its index: sessions added, removed or
// declaring from inside a deliver take effect at the next read. Index sessions ("d...") are offered
// in no set order within one walk, so each run of them is sorted.
TEST_F(BayeuxServerTest, ReentrantCallsTakeEffectAtTheNextReadOfTheirListAndExceptionsStopTheWalk) {
    const auto priority = add("priority", true), ordinary = add("ordinary"), removed = add("removed");
    const auto addedByPriority = host("addedByPriority");
    server->addPrioritySession(declaring("dPriority", "/x"));
    server->addSession(declaring("dOrdinary", "/x"));
    const auto declaredLate = declaring("dDeclaredLate");
    server->addSession(declaredLate);
    priority->onPublish = [&](const PublishRequest&) {
        server->addSession(addedByPriority);
        server->addPrioritySession(host("lateToThisWalk"));
        server->addSession(declaring("dAddedByPriority", "/x"));
        server->addPrioritySession(declaring("dLate", "/x"));
    };
    ordinary->onPublish = [&](const PublishRequest&) {
        server->addSession(host("addedByOrdinary"));
        server->addSession(declaring("dAddedByOrdinary", "/x"));
        server->removeSession(removed);
        declaredLate->hold("/x");
        priority->onPublish = nullptr;
        server->deliver(publish("/inner", "ordinary"));
        ordinary->onPublish = nullptr;
    };
    auto settled = [](Log log) {
        for (auto run = log.begin(); run != log.end();) {
            const auto end = std::find_if(run, log.end(), [](const std::string& line) { return line[0] != 'd'; });
            std::sort(run, end);
            run = end == log.end() ? end : end + 1;
        }
        return log;
    };
    EXPECT_EQ(settled(logOf("/x")), (Log{"priority:/x", "dPriority:/x", "ordinary:/x", "priority:/inner",
                                         "lateToThisWalk:/inner", "addedByPriority:/inner", "addedByOrdinary:/inner",
                                         "removed:/x", "addedByPriority:/x", "dAddedByPriority:/x", "dOrdinary:/x"}));
    EXPECT_EQ(settled(logOf("/x")), (Log{"priority:/x", "lateToThisWalk:/x", "dLate:/x", "dPriority:/x",
                                         "ordinary:/x", "addedByPriority:/x", "addedByOrdinary:/x",
                                         "dAddedByOrdinary:/x", "dAddedByPriority:/x", "dDeclaredLate:/x", "dOrdinary:/x"}));
    addedByPriority->onPublish = [](const PublishRequest&) { throw std::runtime_error("session failed"); };
    EXPECT_THROW(server->deliver(publish("/z")), std::runtime_error) << "the exception reaches the publisher";
    EXPECT_EQ(log.back(), "addedByPriority:/z") << "and the sessions after the thrower are not served";
}

TEST_F(BayeuxServerTest, IndexOffersExactlyWhatTheSessionsPatternsMatchOnceEachAtEveryDepth) {
    const std::vector<std::string> patterns{"/a",     "/a/b",    "/a/*", "/a/**", "/*",  "/**", "/a/b/*",
                                            "/a/b/**", "/a//b/", "/a*",  "/*/b",  "/b/**", "a/c"};
    std::vector<Channel> models(patterns.size());
    const auto everything = declaring("all");
    for (std::size_t i = 0; i < patterns.size(); ++i) {
        models[i].pushPattern(patterns[i]);
        server->addSession(declaring(patterns[i]));
        sessions.back()->hold(patterns[i]);
        everything->hold(patterns[i]).hold(patterns[i]);
    }
    server->addSession(everything);  // declared before it was added, unlike the others
    for (const std::string channel :
         {"/a", "/b", "/c", "/a/b", "/a/c", "/b/b", "/a/b/c", "/b/c/d", "//a//b", "/a%b", "/a/b/c/d"}) {
        Log expected;
        for (std::size_t i = 0; i < patterns.size(); ++i) {
            if (models[i].channelMatches(splitChannel(channel))) {
                expected.push_back(patterns[i] + ":" + channel);
            }
        }
        if (!expected.empty()) {
            expected.push_back("all:" + channel);
        }
        EXPECT_EQ(sorted(logOf(channel)), sorted(expected)) << channel;
    }
}

// Logs "+key" or "-key" by what the server says of the key when told of it. Threading: the
// test's thread, inside the server's calls.
struct HeardInterest : InterestListener {
    explicit HeardInterest(BayeuxServer& server) : server(server) {}
    void interestChanged(const std::vector<std::string>& keys) override {
        for (const std::string& key : keys) {
            heard.push_back((server.isHeld(key) ? "+" : "-") + key);
        }
    }
    BayeuxServer& server;
    Log heard;
};

// After each step, what a publish from "publisher" reaches and what the interest listener heard: of a
// key's first added holder and of its last only. Sessions never added neither receive nor hold.
TEST_F(BayeuxServerTest, IndexAndInterestFollowHoldsWithdrawsRemovesAndDeaths) {
    std::atomic<int> live{0};
    const CountingAllocator<RecordingSession> allocator(live);
    auto s = std::allocate_shared<RecordingSession>(allocator, "s", &log, server);
    auto b = std::allocate_shared<RecordingSession>(allocator, "b", &log, server);
    auto neverAdded = std::allocate_shared<RecordingSession>(allocator, "neverAdded", &log, server);
    const auto listener = std::make_shared<HeardInterest>(*server);
    server->setInterestListener(listener);
    const std::tuple<std::function<void()>, std::string, Log, Log> steps[] = {  // act, publish to, offered, heard
        {[&] { neverAdded->hold("/x/**").hold("/a/b"), s->hold("/a/*").hold("/a/*").hold("/a//b"); }, "/a/b", {}, {}},
        {[&] { server->addSession(s); }, "/a/b", {"s:/a/b"}, {"+a/*", "+a/b"}},
        {[&] { s->drop("/a/*"); }, "/a/c", {"s:/a/c"}, {}},  // one hold is left
        {[&] { s->drop("/a/*").drop("/a/*").drop("/never"); }, "/a/c", {}, {"-a/*"}},
        // One offer per place in the lists; a second holder is no news.
        {[&] { b->hold("/a/b"), server->addSession(b), server->addSession(b), server->addPrioritySession(b); },
         "/a/b", {"b:/a/b", "b:/a/b", "b:/a/b", "s:/a/b"}, {}},
        {[&] { s->drop("/a/b"); }, "/a/b", {"b:/a/b", "b:/a/b", "b:/a/b"}, {}},  // any spelling of the pattern withdraws it
        {[&] { server->removeSession(b); }, "/a/b", {}, {"-a/b"}},  // a remove takes every place
        {[&] { server->addPrioritySession(b); }, "/a/b", {"b:/a/b"}, {"+a/b"}},  // and keeps the patterns
        {[&] { b.reset(); }, "/a/b", {}, {"-a/b"}},
        {[&] { s->hold("/x/**"); }, "/x/y", {"s:/x/y"}, {"+x/**"}},
        {[&] {
             EXPECT_EQ(logOf("/x/y", "s"), Log{}) << "the sender is skipped";
             EXPECT_EQ(server->heldKeys(), Log{"x/**"});
             server->setInterestListener(nullptr);
             s->drop("/x/**");
         }, "/x/y", {}, {}},  // a listener removed hears nothing
        {[&] { s.reset(), neverAdded.reset(); }, "/x/y", {}, {}},
    };
    int step = 0;
    for (const auto& [act, channel, offered, heard] : steps) {
        listener->heard.clear();
        act();
        EXPECT_EQ(sorted(listener->heard), heard) << "step " << step;
        EXPECT_EQ(sorted(logOf(channel)), offered) << "step " << step++;
    }
    EXPECT_EQ(live, 0) << "a session's death drops every reference the server held";
}

}  // namespace
}  // namespace korvane::bayeux
