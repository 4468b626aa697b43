#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "korvane/codec/channel.h"
#include "korvane/routing/bayeux_server.h"
#include "routing/routing_test_support.h"

namespace korvane::bayeux::testing {
namespace {

Log sorted(Log log) {
    std::sort(log.begin(), log.end());
    return log;
}

class BayeuxServerIndexTest : public ::testing::Test {
protected:
    std::shared_ptr<DeclaringSession> declaring(const std::string& id) {
        return declared.emplace_back(std::make_shared<DeclaringSession>(server, id, &log));
    }
    std::shared_ptr<RecordingSession> host(const std::string& id) {
        return hosts.emplace_back(std::make_shared<RecordingSession>(id, &log));
    }
    // Publishes once and returns what the sessions logged for this publish alone.
    Log logOf(const std::string& channel, const std::string& clientId = "publisher") {
        log.clear();
        EXPECT_TRUE(server->deliver(publish(channel, clientId))) << channel;
        return log;
    }

    std::shared_ptr<BayeuxServerImpl> server = std::make_shared<BayeuxServerImpl>();
    Log log;
    std::vector<std::shared_ptr<DeclaringSession>> declared;
    std::vector<std::shared_ptr<RecordingSession>> hosts;
};

TEST_F(BayeuxServerIndexTest, OffersExactlyWhatTheSessionsPatternsMatchOnceEachAtEveryDepth) {
    const std::vector<std::string> patterns{"/a",     "/a/b",    "/a/*", "/a/**", "/*",  "/**", "/a/b/*",
                                            "/a/b/**", "/a//b/", "/a*",  "/*/b",  "/b/**", "a/c"};
    const std::vector<std::string> channels{"/a",       "/b",     "/c",     "/a/b", "/a/c",  "/b/b",
                                            "/a/b/c",   "/b/c/d", "//a//b", "/a%b", "/a/b/c/d"};
    std::vector<Channel> models(patterns.size());
    const auto everything = declaring("all");
    for (std::size_t i = 0; i < patterns.size(); ++i) {
        models[i].pushPattern(patterns[i]);
        server->addSession(declaring(patterns[i]));
        declared.back()->hold(patterns[i]);
        everything->hold(patterns[i]).hold(patterns[i]);
    }
    server->addSession(everything);  // declared before it was added, unlike the others
    for (const std::string& channel : channels) {
        const Segments segments = splitChannel(channel);
        Log expected;
        for (std::size_t i = 0; i < patterns.size(); ++i) {
            if (models[i].channelMatches(segments)) {
                expected.push_back(patterns[i] + ":" + channel);
            }
        }
        if (!expected.empty()) {
            expected.push_back("all:" + channel);
        }
        EXPECT_EQ(sorted(logOf(channel)), sorted(expected)) << channel;
    }
}

TEST_F(BayeuxServerIndexTest, AWithdrawnPatternStopsMatchingAtOnceAndADeadSessionLeavesNothingBehind) {
    std::atomic<int> live{0};
    const CountingAllocator<DeclaringSession> allocator(live);
    auto session = std::allocate_shared<DeclaringSession>(allocator, server, "s", &log);
    session->hold("/a/*").hold("/a/*").hold("/a//b");
    server->addSession(session);
    EXPECT_EQ(logOf("/a/b"), Log{"s:/a/b"}) << "three holds of two matching patterns, one offer";
    session->drop("/a/*");
    EXPECT_EQ(logOf("/a/c"), Log{"s:/a/c"}) << "one hold is left";
    session->drop("/a/*").drop("/a/*").drop("/never");
    EXPECT_EQ(logOf("/a/c"), Log{});
    EXPECT_EQ(logOf("/a/b"), Log{"s:/a/b"});
    session->drop("/a/b");
    EXPECT_EQ(logOf("/a/b"), Log{}) << "any spelling of the pattern withdraws it";

    session->hold("/x/**");
    server->addPrioritySession(session);
    EXPECT_EQ(logOf("/x/y"), (Log{"s:/x/y", "s:/x/y"})) << "one offer per place in the lists";
    session.reset();
    EXPECT_EQ(live, 0) << "the session's death drops every reference the server held";
    EXPECT_EQ(logOf("/x/y"), Log{});

    auto neverAdded = std::allocate_shared<DeclaringSession>(allocator, server, "neverAdded", &log);
    neverAdded->hold("/x/**");
    EXPECT_EQ(logOf("/x/y"), Log{}) << "declared patterns route nothing before the session is added";
    neverAdded.reset();
    EXPECT_EQ(live, 0);
}

TEST_F(BayeuxServerIndexTest, RemovalKeepsThePatternsForTheNextAddAndCopiesFollowTheAdds) {
    const auto session = declaring("s");
    session->hold("/r");
    server->addSession(session);
    server->addSession(session);
    server->addPrioritySession(session);
    EXPECT_EQ(logOf("/r"), (Log{"s:/r", "s:/r", "s:/r"})) << "served once per add, as a host's session is";
    server->removeSession(session);
    EXPECT_EQ(logOf("/r"), Log{});
    server->addSession(session);
    EXPECT_EQ(logOf("/r"), Log{"s:/r"});
    EXPECT_EQ(logOf("/r", "s"), Log{}) << "the sender is skipped";
}

TEST_F(BayeuxServerIndexTest, PriorityTierFirstWithHostAndDeclaringSessionsSideBySide) {
    const auto ordinaryHost = host("ordinaryHost");
    server->addSession(ordinaryHost);
    server->addSession(declaring("ordinary"));
    server->addPrioritySession(declaring("priority"));
    server->addSession(declaring("other"));
    server->addPrioritySession(host("priorityHost"));
    server->addSession(declaring("sender"));
    for (const auto& session : declared) {
        session->hold(session->id == "other" ? "/y" : "/x/*");
    }
    EXPECT_EQ(logOf("/x/1", "sender"),
              (Log{"priorityHost:/x/1", "priority:/x/1", "ordinaryHost:/x/1", "ordinary:/x/1"}));
    EXPECT_EQ(logOf("/z"), (Log{"priorityHost:/z", "ordinaryHost:/z"})) << "a host's session is offered everything";

    log.clear();
    server->deliver(std::make_unique<SubscribeRequest>("/s", "sender"));
    server->deliver(std::make_unique<UnsubscribeRequest>("/s", "ordinaryHost"));
    EXPECT_EQ(log, (Log{"priorityHost:subscribe /s", "ordinaryHost:subscribe /s", "priorityHost:unsubscribe /s"}))
        << "notices reach the host's sessions only";
}

TEST_F(BayeuxServerIndexTest, ASessionAddedOrSubscribedDuringAPublishJoinsAtTheNextSnapshot) {
    const auto priority = declaring("priority");
    const auto ordinary = declaring("ordinary");
    priority->hold("/x");
    ordinary->hold("/x");
    server->addPrioritySession(priority);
    server->addSession(ordinary);
    const auto byPriority = declaring("addedByPriority");
    const auto latePriority = declaring("latePriority");
    const auto byOrdinary = declaring("addedByOrdinary");
    const auto subscribedByOrdinary = declaring("subscribedByOrdinary");
    byPriority->hold("/x");
    latePriority->hold("/x");
    byOrdinary->hold("/x");
    server->addSession(subscribedByOrdinary);
    priority->onPublish = [&](const PublishRequest&) {
        server->addSession(byPriority);
        server->addPrioritySession(latePriority);
        priority->onPublish = nullptr;
    };
    ordinary->onPublish = [&](const PublishRequest&) {
        server->addSession(byOrdinary);
        subscribedByOrdinary->hold("/x");
        ordinary->onPublish = nullptr;
    };
    const Log first = logOf("/x");
    ASSERT_EQ(first.size(), 3u);
    EXPECT_EQ(first[0], "priority:/x");
    EXPECT_EQ(sorted(Log(first.begin() + 1, first.end())), (Log{"addedByPriority:/x", "ordinary:/x"}))
        << "the ordinary tier is read after the priority walk";
    const Log second = logOf("/x");
    ASSERT_EQ(second.size(), 6u);
    EXPECT_EQ(sorted(Log(second.begin(), second.begin() + 2)), (Log{"latePriority:/x", "priority:/x"}));
    EXPECT_EQ(sorted(Log(second.begin() + 2, second.end())),
              (Log{"addedByOrdinary:/x", "addedByPriority:/x", "ordinary:/x", "subscribedByOrdinary:/x"}));
}

// Every publish offered to a session is checked against a model built from stamps of one
// clock: a session whose patterns stay put gets each matching message exactly once and no
// other; a flapping pattern's message comes at most once, never when the pattern was
// withdrawn for the whole publish, always when it was declared for the whole publish.
TEST(BayeuxServerIndexConcurrency, OffersFollowDeclaresWithdrawsAddsAndDeaths) {
    constexpr int publisherCount = 2;
    constexpr int publishesEach = 1500;
    const std::vector<std::string> channels{"/load/a", "/load/b", "/load/a/b"};
    const std::vector<std::vector<std::string>> stablePatterns{
        {"/load/*"}, {"/load/**"}, {"/load/a", "/load/*"}, {"/load/a/*", "/load/a/b", "/**"}, {"/other"}};

    // How often a session was offered each message, by its data "publisher/index".
    struct Offers {
        std::mutex mutex;
        std::map<std::string, int> byMessage;
        void track(RecordingSession& session) {
            session.onPublish = [this](const PublishRequest& message) {
                const std::lock_guard<std::mutex> guard(mutex);
                ++byMessage[message.data->str()];
            };
        }
        int of(const std::string& message) {
            const auto found = byMessage.find(message);
            return found == byMessage.end() ? 0 : found->second;
        }
    };

    const auto server = std::make_shared<BayeuxServerImpl>();
    std::atomic<long> clock{0};
    std::vector<Offers> stableOffers(stablePatterns.size());
    std::vector<Channel> stableModels(stablePatterns.size());
    std::vector<std::shared_ptr<DeclaringSession>> stable;
    for (std::size_t i = 0; i < stablePatterns.size(); ++i) {
        stable.push_back(std::make_shared<DeclaringSession>(server, "stable" + std::to_string(i), nullptr));
        stableOffers[i].track(*stable.back());
        for (const std::string& pattern : stablePatterns[i]) {
            stable.back()->hold(pattern);
            stableModels[i].pushPattern(pattern);
        }
        i % 2 == 0 ? server->addSession(stable.back()) : server->addPrioritySession(stable.back());
    }
    Offers hostOffers;
    const auto host = std::make_shared<RecordingSession>("host", nullptr);
    hostOffers.track(*host);
    server->addSession(host);
    Offers flapperOffers;
    const auto flapper = std::make_shared<DeclaringSession>(server, "flapper", nullptr);
    flapperOffers.track(*flapper);
    server->addSession(flapper);

    struct Stamps {
        long before;
        long after;
    };
    struct Held {  // one declare of the flapping pattern and the withdraw that ended it
        Stamps declared;
        Stamps withdrawn;
    };
    std::vector<Held> held;
    std::vector<std::vector<Stamps>> published(publisherCount, std::vector<Stamps>(publishesEach));
    std::atomic<int> liveDying{0};
    std::atomic<bool> running{true};

    std::atomic<bool> flapperStarted{false};
    std::thread flapperThread([&] {
        while (running.load()) {
            Held hold;
            hold.declared.before = clock++;
            flapper->hold("/load/b");
            hold.declared.after = clock++;
            flapperStarted = true;
            std::this_thread::yield();
            hold.withdrawn.before = clock++;
            flapper->drop("/load/b");
            hold.withdrawn.after = clock++;
            held.push_back(hold);
            std::this_thread::yield();
        }
    });
    std::thread dying([&] {
        const CountingAllocator<DeclaringSession> allocator(liveDying);
        while (running.load()) {
            auto session = std::allocate_shared<DeclaringSession>(allocator, server, "dying", nullptr);
            session->hold("/load/**");
            server->addSession(session);
            session->hold("/load/a");
        }
    });
    std::vector<std::thread> publishers;
    for (int p = 0; p < publisherCount; ++p) {
        publishers.emplace_back([&, p] {
            while (!flapperStarted.load()) {
                std::this_thread::yield();
            }
            for (int i = 0; i < publishesEach; ++i) {
                auto request = publish(channels[i % channels.size()]);
                request->data = std::make_shared<common::DataBuffer>(std::to_string(p) + "/" + std::to_string(i));
                published[p][i].before = clock++;
                ASSERT_TRUE(server->deliver(std::move(request)));
                published[p][i].after = clock++;
            }
        });
    }
    for (std::thread& publisher : publishers) {
        publisher.join();
    }
    running = false;
    dying.join();
    flapperThread.join();
    EXPECT_EQ(liveDying, 0) << "dead sessions leave nothing behind in the server";

    int wrongStable = 0, wrongHost = 0, flapperTwice = 0, flapperTooMuch = 0, flapperMissed = 0;
    for (int p = 0; p < publisherCount; ++p) {
        for (int i = 0; i < publishesEach; ++i) {
            const std::string message = std::to_string(p) + "/" + std::to_string(i);
            const std::string& channel = channels[i % channels.size()];
            const Segments segments = splitChannel(channel);
            for (std::size_t k = 0; k < stable.size(); ++k) {
                wrongStable += stableOffers[k].of(message) != (stableModels[k].channelMatches(segments) ? 1 : 0);
            }
            wrongHost += hostOffers.of(message) != 1;
            const int flapped = flapperOffers.of(message);
            const Stamps& publishing = published[p][i];
            const bool mayOffer = channel == "/load/b" && std::any_of(held.begin(), held.end(), [&](const Held& h) {
                return h.declared.before < publishing.after && h.withdrawn.after > publishing.before;
            });
            const bool mustOffer = channel == "/load/b" && std::any_of(held.begin(), held.end(), [&](const Held& h) {
                return h.declared.after < publishing.before && h.withdrawn.before > publishing.after;
            });
            flapperTwice += flapped > 1;
            flapperTooMuch += flapped > 0 && !mayOffer;
            flapperMissed += flapped == 0 && mustOffer;
        }
    }
    EXPECT_EQ(wrongStable, 0) << "a steady session gets each matching message once and nothing else";
    EXPECT_EQ(wrongHost, 0) << "a host's session gets everything once";
    EXPECT_EQ(flapperTwice, 0);
    EXPECT_EQ(flapperTooMuch, 0) << "offered while the pattern was withdrawn throughout";
    EXPECT_EQ(flapperMissed, 0) << "missed while the pattern was declared throughout";
}

}  // namespace
}  // namespace korvane::bayeux::testing
