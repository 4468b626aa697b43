#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "service/provider_test_support.h"
#include "korvane/session/long_poll_session.h"

namespace korvane::bayeux::testing {
namespace {

using namespace std::chrono_literals;

// A routing core that can hold up the unsubscribe notices of dying sessions, so
// that a sweep can be caught in the middle of destroying what it dropped.
class GatedServer : public BayeuxServer {
public:
    void addSession(std::weak_ptr<BayeuxSession> session) override { inner->addSession(std::move(session)); }
    void removeSession(const std::shared_ptr<BayeuxSession>& session) override { inner->removeSession(session); }
    bool deliver(std::unique_ptr<PublishRequest>&& request) override { return inner->deliver(std::move(request)); }
    bool deliver(std::shared_ptr<const PublishRequest>&& request) override {
        return inner->deliver(std::move(request));
    }
    void deliver(std::unique_ptr<SubscribeRequest>&& request) override { inner->deliver(std::move(request)); }
    void deliver(std::unique_ptr<UnsubscribeRequest>&& request) override {
        std::unique_lock<std::mutex> lock(mutex);
        entered = true;
        changed.notify_all();
        changed.wait(lock, [this] { return opened; });
        lock.unlock();
        inner->deliver(std::move(request));
    }
    std::shared_ptr<BayeuxServer> getPtr() override { return inner->getPtr(); }
    void addPrioritySession(std::weak_ptr<BayeuxSession> session) override {
        inner->addPrioritySession(std::move(session));
    }

    void waitEntered() {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this] { return entered; });
    }
    void open() {
        std::lock_guard<std::mutex> lock(mutex);
        opened = true;
        changed.notify_all();
    }

private:
    std::shared_ptr<BayeuxServerImpl> inner = std::make_shared<BayeuxServerImpl>();
    std::mutex mutex;
    std::condition_variable changed;
    bool entered = false;
    bool opened = false;
};

class BayeuxServiceProviderConcurrency : public ProviderFixture {};

TEST_F(BayeuxServiceProviderConcurrency, ASweepDestroysWhatItDropsOutsideTheLockAndDestructionWaitsForIt) {
    auto gated = std::make_shared<GatedServer>();
    provider = std::make_shared<BayeuxServiceProviderImpl>(gated);
    provider->start();
    auto browser = std::make_shared<TestContext>("browser-1");

    std::string stale = handshake(browser);
    ASSERT_TRUE(subscribe(stale, "/a", browser)->successful);
    clock->advanceTicks(1150);
    std::string fresh = handshake(browser);

    // The sweep at startTick + 1200 drops `stale`, whose dying session blocks in its notice.
    std::thread timerThread([this] { clock->advanceTicks(50); });
    gated->waitEntered();

    // The registry is usable while the sweep is stuck: it holds no lock any more.
    std::string another = handshake(browser);
    EXPECT_EQ(another.size(), 16u);
    EXPECT_TRUE(publish(fresh, "/b", "", browser)->successful);

    std::atomic<bool> destroyed{false};
    std::thread destroyer([owner = std::move(provider), &destroyed]() mutable {
        owner.reset();
        destroyed = true;
    });
    // `fresh` keeps the sweep alive, so the destructor has to wait for the sweep
    // that is still running on the timer thread.
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(destroyed.load());

    gated->open();
    timerThread.join();
    destroyer.join();
    EXPECT_TRUE(destroyed.load());
    EXPECT_EQ(clock->armedCount(), 0u);
}

TEST_F(BayeuxServiceProviderConcurrency, ProviderDestroyedWhileItsSweepIsDueOnAnotherThread) {
    auto browser = std::make_shared<TestContext>("browser-1");
    for (int round = 0; round < 60; ++round) {
        provider = makeProvider();
        for (int i = 0; i < 3; ++i) {
            std::string client = handshake(browser);
            ASSERT_TRUE(subscribe(client, "/a/**", browser)->successful);
            connect(client, browser);
        }
        // Some rounds cross the client timeout, so that the sweep also releases
        // its own handle while the provider goes.
        const int periods = 1 + round % 16;
        std::thread timerThread([this, periods] {
            for (int i = 0; i < periods; ++i) {
                clock->advanceTicks(100);
            }
        });
        if (round % 2 == 0) {
            std::this_thread::yield();
        }
        provider.reset();
        timerThread.join();
        ASSERT_EQ(clock->armedCount(), 0u) << "round " << round;
    }
}

TEST_F(BayeuxServiceProviderConcurrency, ClientsOfSeveralThreadsLiveWhileTheClockRuns) {
    constexpr int workers = 4;
    constexpr int roundsPerWorker = 40;
    std::atomic<bool> stop{false};
    std::thread timerThread([this, &stop] {
        while (!stop.load()) {
            clock->advance(5ms);
            std::this_thread::sleep_for(200us);
        }
    });

    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int worker = 0; worker < workers; ++worker) {
        threads.emplace_back([this, worker, &failures] {
            auto context = std::make_shared<TestContext>("browser-" + std::to_string(worker % 2));
            for (int round = 0; round < roundsPerWorker; ++round) {
                std::string receiver = handshake(context);
                std::string sender = handshake(context);
                auto recorder = std::make_shared<RecordingSubscriber>();
                bool ok = subscribe(receiver, "/load/**", context)->successful;
                auto held = connect(receiver, context, worker % 2 == 0 ? "long-polling" : "websocket");
                ok = ok && held->successful && held->stream;
                if (held->stream) {
                    held->stream->subscribe(recorder);
                }
                ok = ok && publish(sender, "/load/" + std::to_string(worker), "", context)->successful;
                ok = ok && disconnect(sender, context)->successful;
                ok = ok && disconnect(receiver, context)->successful;
                // The dying receiver answers its connect, whatever the clock has done meanwhile.
                ok = ok && recorder->waitCompleted(5s);
                if (!ok) {
                    ++failures;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    stop = true;
    timerThread.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(provider->getActiveConnectCountForSessionId("browser-0", "long-polling"), 0u);
}

}  // namespace
}  // namespace korvane::bayeux::testing
