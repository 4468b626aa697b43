#include "korvane/host/relay_subscriber.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/test_helpers.h"

namespace korvane::host {
namespace {

using Relay = RelaySubscriber<int>;

struct RecordingSubscription : reactive_streams::Subscription {
    void request(unsigned long n) override { requested += n; }
    void cancel() override { ++cancelled; }
    unsigned long requested = 0;
    int cancelled = 0;
};

// Signals as text: items by value, the end as "end".
std::string taken(Relay& relay) {
    std::vector<Relay::Signal> signals;
    relay.takeAll(signals);
    std::string text;
    for (const Relay::Signal& signal : signals) {
        text += (text.empty() ? "" : " ") + (signal.item ? std::to_string(*signal.item) : std::string("end"));
    }
    return text;
}

// A gathering relay wakes the loop for the first signal kept since the last take only (a collecting one not before
// its first take), hands the signals over in order, forwards demand, and keeps nothing past the end.
TEST(GatheringRelay, WakesOncePerTakeAndHandsSignalsOverInOrder) {
    int wakes = 0;
    auto relay = std::make_shared<Relay>([&wakes] { ++wakes; });
    auto upstream = std::make_shared<RecordingSubscription>();
    relay->onSubscribe(upstream);
    relay->request(5);
    EXPECT_EQ(upstream->requested, 5u);

    relay->onNext(1);
    relay->onNext(2);
    EXPECT_EQ(wakes, 1);
    EXPECT_EQ(taken(*relay), "1 2");
    relay->onNext(3);
    relay->onComplete();
    relay->onNext(4);
    EXPECT_EQ(wakes, 2);
    EXPECT_EQ(taken(*relay), "3 end");
    EXPECT_TRUE(relay->getFuture().get());

    // Made collecting, a relay keeps what comes before its first take without waking.
    int collectingWakes = 0;
    Relay collecting([&collectingWakes] { ++collectingWakes; }, true);
    collecting.onNext(1);
    EXPECT_EQ(taken(collecting), "1");
    collecting.onNext(2);
    EXPECT_EQ(collectingWakes, 1);
}

// Detaching cancels upstream once, drops what waits and the wake's captures, and ends the relay for good.
TEST(GatheringRelay, DetachCancelsUpstreamAndLetsGoOfTheWake) {
    auto token = std::make_shared<int>(0);
    std::weak_ptr<int> watch = token;
    auto relay = std::make_shared<Relay>([token] { ++*token; });
    token.reset();
    auto upstream = std::make_shared<RecordingSubscription>();
    relay->onSubscribe(upstream);
    relay->onNext(1);
    relay->detach();
    relay->detach();
    EXPECT_EQ(upstream->cancelled, 1);
    EXPECT_TRUE(watch.expired()) << "the wake outlived the relay's end";
    EXPECT_EQ(taken(*relay), "");
    relay->onNext(2);
    relay->request(1);
    EXPECT_EQ(taken(*relay), "");
    EXPECT_EQ(upstream->requested, 0u);
    EXPECT_FALSE(relay->getFuture().get());
}

// Two threads signal at once while a third takes whenever woken: every signal arrives once, each thread's in order.
TEST(GatheringRelayConcurrency, SignalsFromTwoThreadsArriveOnceEachInTheirOrder) {
    constexpr int perThread = 2000;
    std::mutex mutex;
    std::condition_variable woken;
    bool pending = false;
    auto relay = std::make_shared<Relay>([&] {
        std::lock_guard<std::mutex> guard(mutex);
        pending = true;
        woken.notify_one();
    });
    std::vector<int> arrived;
    std::atomic<bool> producing{true};
    std::thread loop([&] {
        std::vector<Relay::Signal> signals;
        for (;;) {
            {
                std::unique_lock<std::mutex> lock(mutex);
                woken.wait_for(lock, std::chrono::milliseconds(10), [&] { return pending; });
                pending = false;
            }
            // Read before the take: once the producers are done, this take gets everything.
            const bool finished = !producing;
            relay->takeAll(signals);
            for (const Relay::Signal& signal : signals) {
                arrived.push_back(*signal.item);
            }
            signals.clear();
            if (finished) {
                return;
            }
        }
    });
    test_support::onThreads(2, [&relay](int which) {
        for (int index = 0; index < perThread; ++index) {
            relay->onNext(which * perThread + index);
        }
    });
    producing = false;
    loop.join();
    ASSERT_EQ(arrived.size(), 2u * perThread);
    int last[2] = {-1, -1};
    for (int value : arrived) {
        const int which = value / perThread;
        EXPECT_GT(value, last[which]);
        last[which] = value;
    }
}

}  // namespace
}  // namespace korvane::host
