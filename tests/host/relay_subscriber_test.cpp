#include "korvane/host/relay_subscriber.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "korvane/frame/cached_value_publisher.h"
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

// Collected, a relay wakes its taker at once for what waits and moves the items behind the taker's own; to stop
// collecting is to detach. (Its end behind the items: the concurrency test and the host's frame table.)
TEST(GatheringRelay, CollectedItWakesForWhatWaitsAndStopsAsADetach) {
    auto relay = std::make_shared<Relay>(nullptr);
    auto upstream = std::make_shared<RecordingSubscription>();
    relay->onSubscribe(upstream);
    relay->onNext(1);
    int wakes = 0;
    relay->collect([&wakes] { ++wakes; });
    common::RingQueue<int> into;
    into.push_back(0);
    EXPECT_FALSE(relay->takeAll(into).ended);
    EXPECT_EQ(wakes * 100 + into.size() * 10 + into[1], 121u);
    relay->stopCollecting();
    EXPECT_EQ(upstream->cancelled, 1);
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

// Two threads signal at once while a third takes, from a relay and from a publisher collected directly.
TEST(CollectedStreamConcurrency, ValuesFromTwoThreadsArriveOnceEachInTheirOrder) {
    using Direct = reactive_streams::CachedValuePublisher<int, std::function<void()>>;
    constexpr int perThread = 2000;
    auto relay = std::make_shared<Relay>(nullptr);
    auto direct = std::make_shared<Direct>(nullptr);
    const std::vector<std::pair<reactive_streams::Collectable<int>*, std::function<void(int)>>> streams = {
        {relay.get(), [&relay](int value) { value < 0 ? relay->onComplete() : relay->onNext(std::move(value)); }},
        {direct.get(), [&direct](int value) { value < 0 ? direct->finish() : direct->publish(std::move(value)); }},
    };
    for (const auto& [stream, signal] : streams) {
        stream->collect([] {});
        std::vector<int> arrived;
        std::thread loop([&arrived, stream = stream] {
            common::RingQueue<int> values;
            for (bool ended = false; !ended; std::this_thread::yield()) {
                ended = stream->takeAll(values).ended;
                for (; !values.empty(); values.pop_front()) {
                    arrived.push_back(values.front());
                }
            }
        });
        test_support::onThreads(2, [&signal = signal](int which) {
            for (int index = 0; index < perThread; ++index) {
                signal(which * perThread + index);
            }
        });
        signal(-1);
        loop.join();
        // Each thread's values, once each and in its order, with the end behind them all.
        std::stable_partition(arrived.begin(), arrived.end(), [](int value) { return value < perThread; });
        std::vector<int> expected(2 * perThread);
        std::iota(expected.begin(), expected.end(), 0);
        EXPECT_EQ(arrived, expected);
    }
}

}  // namespace
}  // namespace korvane::host
