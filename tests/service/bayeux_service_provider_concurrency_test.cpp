#include <atomic>
#include <future>
#include <mutex>
#include <thread>

#include "korvane/session/long_poll_session.h"
#include "service/provider_test_support.h"

namespace korvane::bayeux::testing {
namespace {

// A routing core that holds up the unsubscribe notices of dying sessions until `gate` is
// opened, so that a sweep can be caught in the middle of destroying what it dropped.
class GatedServer : public BayeuxServerImpl {
public:
    using BayeuxServerImpl::deliver;
    void deliver(std::unique_ptr<UnsubscribeRequest>&& request) override {
        std::call_once(enteredOnce, [this] { entered.set_value(); });
        opened.wait();
        BayeuxServerImpl::deliver(std::move(request));
    }

    std::once_flag enteredOnce;
    std::promise<void> entered, gate;
    std::shared_future<void> opened = gate.get_future().share();
};

using BayeuxServiceProviderConcurrency = ProviderFixture;

TEST_F(BayeuxServiceProviderConcurrency, ASweepDestroysWhatItDropsOutsideTheLockAndDestructionWaitsForIt) {
    auto gated = std::make_shared<GatedServer>();
    provider = makeProvider(gated);
    const std::string stale = handshake();
    ASSERT_TRUE(subscribe(stale, "/a")->successful);
    clock->advanceTicks(1150);
    const std::string fresh = handshake();
    // The sweep at startTick + 1200 drops `stale`, whose dying session blocks in its notice.
    std::thread timerThread([this] { clock->advanceTicks(50); });
    gated->entered.get_future().wait();
    // The registry is usable while the sweep is stuck: it holds no lock any more.
    EXPECT_EQ(handshake().size(), 16u);
    EXPECT_TRUE(publish(fresh, "/b")->successful);
    std::atomic<bool> destroyed{false};
    std::thread destroyer([owner = std::move(provider), &destroyed]() mutable {
        owner.reset();
        destroyed = true;
    });
    // `fresh` keeps the sweep alive, so the destructor has to wait for the sweep that is still
    // running on the timer thread.
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(destroyed.load());
    gated->gate.set_value();
    timerThread.join();
    destroyer.join();
    EXPECT_TRUE(destroyed.load());
    EXPECT_EQ(clock->armedCount(), 0u);
}

// Workers on several threads live whole client lives while the clock runs, idle clients past
// the pending limit are dropped as publishes flood them, and half of those leave by themselves,
// racing their drop.
TEST_F(BayeuxServiceProviderConcurrency, ClientsLiveDropAndLeaveOnSeveralThreadsWhileTheClockRuns) {
    provider = makeProvider(server, pendingLimit(5));
    std::vector<std::string> idle;
    for (int client = 0; client < 20; ++client) {
        idle.push_back(handshake());
        ASSERT_TRUE(subscribe(idle.back(), "/flood/**")->successful);
    }
    std::atomic<bool> stop{false};
    std::thread timerThread([this, &stop] {
        while (!stop.load()) {
            clock->advance(5ms);
            std::this_thread::sleep_for(200us);
        }
    });
    std::vector<std::thread> threads;
    for (int worker = 0; worker < 4; ++worker) {
        threads.emplace_back([this, worker] {
            auto context = std::make_shared<TestContext>("browser-" + std::to_string(worker % 2));
            for (int round = 0; round < 40; ++round) {
                const std::string receiver = handshake(context), sender = handshake(context);
                EXPECT_TRUE(subscribe(receiver, "/load/" + std::to_string(worker), context)->successful);
                auto stream = open(connect(receiver, worker % 2 == 0 ? "long-polling" : "websocket", {}, context));
                EXPECT_TRUE(publish(sender, "/load/" + std::to_string(worker), "", context)->successful);
                EXPECT_TRUE(publish(sender, "/flood/" + std::to_string(worker), "", context)->successful);
                EXPECT_TRUE(disconnect(sender, context)->successful && disconnect(receiver, context)->successful);
                // The dying receiver answers its connect, whatever the clock has done meanwhile.
                EXPECT_TRUE(stream->waitCompleted(5s));
            }
        });
    }
    threads.emplace_back([this, &idle] {
        for (std::size_t client = 0; client < idle.size(); client += 2) {
            disconnect(idle[client]);
        }
    });
    for (auto& thread : threads) {
        thread.join();
    }
    stop = true;
    timerThread.join();
    EXPECT_EQ(provider->getActiveConnectCountForSessionId("browser-0", "long-polling"), 0u);
    for (const std::string& client : idle) {
        EXPECT_FALSE(provider->getSession(client, "")) << client;
    }
}

}  // namespace
}  // namespace korvane::bayeux::testing
