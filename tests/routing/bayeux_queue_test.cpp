#include "korvane/routing/bayeux_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "korvane/codec/messages.h"
#include "korvane/frame/logger.h"
#include "support/recording_subscriber.h"

namespace korvane::bayeux {
namespace {

using reactive_streams::Subscription;
using Events = std::vector<std::string>;
constexpr unsigned long unlimited = std::numeric_limits<unsigned long>::max();

std::unique_ptr<Message> message(const std::string& channel, std::shared_ptr<common::DataBuffer> data = nullptr) {
    auto request = std::make_unique<PublishRequest>(channel);
    request->data = std::move(data);
    return request;
}

// The shared recording subscriber, with a message's channel for its text, that also keeps its
// subscription weakly to see it released.
class RecordingSubscriber : public test_support::RecordingSubscriber<std::unique_ptr<Message>> {
public:
    RecordingSubscriber(Events& log, unsigned long initialDemand = 0, unsigned long refill = 0)
        : test_support::RecordingSubscriber<std::unique_ptr<Message>>(
              initialDemand, refill, [](auto& item) { return dynamic_cast<PublishRequest&>(*item).channel; }, &log) {}
    void onSubscribe(std::weak_ptr<Subscription> given) override {
        subscription = given;
        test_support::RecordingSubscriber<std::unique_ptr<Message>>::onSubscribe(given);
    }
    // Runs `act` for each item, counting the items that arrive while it runs for another.
    void actOnEachItem(std::function<void()> act) {
        onItem = [this, act = std::move(act)](auto&) {
            overlaps += inside.exchange(true);
            act();
            inside = false;
        };
    }

    std::weak_ptr<Subscription> subscription;
    std::atomic<bool> inside{false};
    std::atomic<int> overlaps{0};
};

// Drives a fresh queue through steps "name [argument]" and logs, in order, what its subscribers
// see ("subscribe", "next /x", "complete", "error TEXT"), how its future ends ("end true" or
// "end false"), what a probing step reports and, as "threw TEXT", what a step threw.
// Steps: push CHANNEL, subscribe N (a subscriber that asks for N at once, the current one once
// accepted), request N|max, cancel, done, whenEmpty, fail TEXT, size (as "size N"), late (a push
// into an ended queue: "kept" if the caller keeps its message), refill (the current subscriber asks for one more inside each onNext), cancelInside,
// throwing and accepting (onNext throws from then on, or stops), expired (the current
// subscription is gone), destroy (drops the queue).
struct Script {
    std::vector<std::string> steps;
    Events log;
};

void runScripts(const std::vector<Script>& scripts) {
    for (const Script& script : scripts) {
        SCOPED_TRACE(script.steps.front() + " ... " + script.steps.back());
        Events log;  // first in, last out: the queue's destructor still records into it
        auto queue = std::make_shared<BayeuxQueue>("script");
        Future<bool> end = queue->getFuture().then([&log](Future<bool>&& result) {
            return log.push_back(result.get() ? "end true" : "end false"), true;
        });
        std::shared_ptr<RecordingSubscriber> current;
        std::atomic<int> overlaps{0};
        const std::map<std::string, std::function<void(const std::string&)>> steps = {
            {"push", [&](auto& channel) { queue->setValue(message(channel)); }},
            {"subscribe", [&](auto& n) {
                 auto subscriber = std::make_shared<RecordingSubscriber>(log, std::stoul(n));
                 queue->subscribe(subscriber);
                 overlaps += current ? current->overlaps.load() : 0;
                 current = subscriber;
             }},
            {"request", [&](auto& n) { current->request(n == "max" ? unlimited : std::stoul(n)); }},
            {"cancel", [&](auto&) { current->cancel(); }},
            {"done", [&](auto&) { queue->done(); }},
            {"whenEmpty", [&](auto&) { queue->doneWhenEmpty(); }},
            {"fail", [&](auto& text) { queue->setError(std::make_exception_ptr(std::runtime_error(text))); }},
            {"size", [&](auto&) { log.push_back("size " + std::to_string(queue->bufferSize())); }},
            {"late", [&](auto&) {
                 auto late = message("/late");
                 queue->setValue(std::move(late));
                 log.push_back(late ? "kept" : "taken");
             }},
            {"refill", [&](auto&) { current->actOnEachItem([subscriber = current.get()] { subscriber->request(1); }); }},
            {"cancelInside", [&](auto&) { current->actOnEachItem([subscriber = current.get()] { subscriber->cancel(); }); }},
            {"throwing", [&](auto&) { current->onItem = [](auto&) { throw std::runtime_error("subscriber failed"); }; }},
            {"accepting", [&](auto&) { current->onItem = nullptr; }},
            {"expired", [&](auto&) { log.push_back(current->subscription.expired() ? "expired" : "alive"); }},
            {"destroy", [&](auto&) { queue.reset(); }},
        };
        for (const std::string& step : script.steps) {
            const std::size_t space = step.find(' ');
            const std::string name = step.substr(0, space);
            const std::string argument = space == std::string::npos ? "" : step.substr(space + 1);
            const std::string refused = test_support::errorOf([&] { steps.at(name)(argument); });
            if (refused != "(no exception)") {
                log.push_back("threw " + refused);
            }
        }
        EXPECT_EQ(log, script.log);
        EXPECT_EQ(overlaps + (current ? current->overlaps.load() : 0), 0) << "onNext ran inside another onNext";
    }
}

TEST(BayeuxQueueTest, ScriptsOfDemandEndingsAndSubscribers) {
    runScripts({
        // Queued messages wait for a request; zero adds nothing; demand saturates instead of
        // wrapping, overflowing to zero or being ignored.
        {{"push /1", "push /2", "push /3", "subscribe 0", "size", "request 2", "request 0", "size", "request 5",
          "push /4", "size", "request max", "request max", "request 1", "push /5", "push /6", "push /7", "push /8"},
         {"subscribe", "size 3", "next /1", "next /2", "size 1", "next /3", "next /4", "size 0", "next /5", "next /6",
          "next /7", "next /8"}},
        // A request or a cancel from onNext takes effect without recursion.
        {{"push /0", "push /1", "push /2", "subscribe 0", "refill", "request 1", "cancel", "push /3", "push /4",
          "subscribe 0", "cancelInside", "request 2", "size"},
         {"subscribe", "next /0", "next /1", "next /2", "subscribe", "next /3", "size 1"}},
        // An ended queue leaves a late message with its caller, ignores every other call and keeps
        // its subscriber.
        {{"subscribe 0", "push /dropped", "done", "late", "fail late", "whenEmpty", "done", "request 10", "subscribe 10"},
         {"subscribe", "complete", "end true", "kept", "threw Only one subscription allowed."}},
        {{"subscribe 0", "push /dropped", "fail broken", "late", "done", "whenEmpty", "request 10"},
         {"subscribe", "error broken", "end false", "kept"}},
        // Done when empty ends after the last message, at once when empty, and an early end reaches
        // every later subscriber.
        {{"subscribe 0", "push /1", "whenEmpty", "push /2", "fail ignored", "size", "request 2"},
         {"subscribe", "size 2", "next /1", "next /2", "complete", "end true"}},
        {{"subscribe 0", "whenEmpty"}, {"subscribe", "complete", "end true"}},
        {{"whenEmpty", "subscribe 1", "subscribe 1"}, {"end true", "subscribe", "complete", "subscribe", "complete"}},
        {{"fail early", "subscribe 1", "subscribe 1"},
         {"end false", "subscribe", "error early", "subscribe", "error early"}},
        // One subscriber at a time; a cancel releases the subscription and keeps the messages for the
        // next subscriber, which starts with no demand.
        {{"subscribe 0", "subscribe 1", "request 3", "push /1", "cancel", "expired", "push /2", "push /3",
          "subscribe 0", "size", "request 5", "done"},
         {"subscribe", "threw Only one subscription allowed.", "next /1", "expired", "subscribe", "size 2", "next /2",
          "next /3", "complete", "end true"}},
        // A throwing subscriber loses only the message in flight, which spent its demand.
        {{"subscribe 2", "throwing", "push /lost", "accepting", "push /2", "push /3", "size", "whenEmpty",
          "request 1"},
         {"subscribe", "next /lost", "next /2", "size 1", "next /3", "complete", "end true"}},
        // Destruction completes an open queue and releases the subscription.
        {{"subscribe 1", "push /delivered", "push /undelivered", "destroy", "expired"},
         {"subscribe", "next /delivered", "complete", "end true", "expired"}},
    });
    Events log;
    BayeuxQueue unowned("unowned");
    EXPECT_THROW(unowned.subscribe(std::make_shared<RecordingSubscriber>(log, 10)), std::bad_weak_ptr);
    EXPECT_EQ(log, Events{});
}

TEST(BayeuxQueueTest, DestructionFreesEveryMessageAndTheQueueKeepsNothingOfADeliveredOne) {
    const auto delivered = std::make_shared<common::DataBuffer>(), undelivered = std::make_shared<common::DataBuffer>();
    Events log;
    auto queue = std::make_shared<BayeuxQueue>("destroyed");
    queue->subscribe(std::make_shared<RecordingSubscriber>(log, 1));
    queue->setValue(message("/delivered", delivered));
    EXPECT_EQ(delivered.use_count(), 2) << "the queue keeps nothing of a delivered message";
    queue->setValue(message("/undelivered", undelivered));
    queue.reset();
    EXPECT_EQ(undelivered.use_count(), 1);
}

TEST(BayeuxQueueTest, SubscriptionWithoutItsQueueRefusesLoudlyWithATraceOnStandardError) {
    common::installStderrLogSink();
    Events log;
    auto queue = std::make_shared<BayeuxQueue>("gone");
    const auto subscriber = std::make_shared<RecordingSubscriber>(log);
    queue->subscribe(subscriber);
    const std::shared_ptr<Subscription> kept = subscriber->subscription.lock();
    queue.reset();
    const std::pair<std::function<void()>, std::string> calls[] = {
        {[&] { kept->request(1); }, "No publisher, can not request!"},
        {[&] { kept->cancel(); }, "No publisher, can not cancel!"}};
    for (const auto& [call, text] : calls) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(test_support::errorOf<std::runtime_error>(call), text);
        const std::string trace = testing::internal::GetCapturedStderr();
        EXPECT_NE(trace.find("Cancelled with no publisher"), std::string::npos) << trace;
        EXPECT_NE(trace.find("korvane_routing_tests"), std::string::npos) << "a stack trace names the frames";
    }
}

// Runs `count` threads that each push `each` messages "/<thread>/<sequence>", plus `also`.
void runProducers(const std::shared_ptr<BayeuxQueue>& queue, int count, int each, std::function<void()> also) {
    std::vector<std::thread> threads;
    for (int p = 0; p < count; ++p) {
        threads.emplace_back([queue, p, each] {
            for (int i = 0; i < each; ++i) {
                queue->setValue(message("/" + std::to_string(p) + "/" + std::to_string(i)));
            }
        });
    }
    threads.emplace_back(std::move(also));
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// How many messages of each producer arrived; fails unless they came in push order.
std::vector<int> countInPushOrder(const Events& events, int producers) {
    std::vector<int> next(producers, 0);
    for (const std::string& event : events) {
        int producer = 0, sequence = 0;
        if (std::sscanf(event.c_str(), "next /%d/%d", &producer, &sequence) == 2) {
            EXPECT_EQ(sequence, next[producer]++) << "producer " << producer;
        }
    }
    return next;
}

// A requester asks for small batches while producers push and the queue is ended twice: a third
// of the rounds first end it once every push is in, the others while the producers push. Each
// round ends once, never runs two onNext at once, keeps each producer's order and, ended after
// the last push, loses nothing.
TEST(BayeuxQueueConcurrency, ProducersARequesterAndEndingsOnSeparateThreads) {
    constexpr int producerCount = 3, messagesEach = 2000, batch = 16;
    for (int round = 0; round < 30; ++round) {
        const auto queue = std::make_shared<BayeuxQueue>("race");
        Future<bool> end = queue->getFuture();
        Events log;
        const auto subscriber = std::make_shared<RecordingSubscriber>(log);
        std::atomic<long> received{0};
        subscriber->actOnEachItem([&received] { ++received; });
        queue->subscribe(subscriber);
        std::thread requester([&, subscription = subscriber->subscription.lock()] {
            for (long requested = 0; subscriber->count("complete") == 0;) {
                if (requested - received.load() < batch) {
                    requested += batch;
                    subscription->request(batch);
                } else {
                    std::this_thread::yield();
                }
            }
        });
        const int ending = round % 3;
        runProducers(queue, producerCount, messagesEach, [&queue, ending] {
            ending == 1 ? queue->doneWhenEmpty() : ending == 2 ? queue->done() : void();
        });
        queue->doneWhenEmpty();
        requester.join();
        ASSERT_TRUE(end.get());
        ASSERT_EQ(std::count(log.begin(), log.end(), "complete"), 1);
        ASSERT_EQ(subscriber->overlaps, 0);
        const std::vector<int> counts = countInPushOrder(log, producerCount);
        if (ending == 0) {
            ASSERT_EQ(counts, std::vector<int>(producerCount, messagesEach)) << "round " << round;
        }
    }
}

}  // namespace
}  // namespace korvane::bayeux
