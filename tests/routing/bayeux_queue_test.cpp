#include "korvane/routing/bayeux_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <functional>
#include <limits>
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

class BayeuxQueueTest : public testing::Test {
protected:
    std::shared_ptr<RecordingSubscriber> makeSubscriber(unsigned long requestOnSubscribe = 0) {
        return std::make_shared<RecordingSubscriber>(log, requestOnSubscribe);
    }
    void push(std::initializer_list<const char*> channels) {
        for (const char* channel : channels) {
            queue->setValue(message(channel));
        }
    }
    // A fresh queue whose end shows up in the log, when it happens, as "end true" or "end false".
    void renew() {
        log.clear();
        queue = std::make_shared<BayeuxQueue>("test");
        end = queue->getFuture().then([this](Future<bool>&& result) {
            log.push_back(result.get() ? "end true" : "end false");
            return true;
        });
    }
    void fail(const char* text) { queue->setError(std::make_exception_ptr(std::runtime_error(text))); }

    Events log;  // first in, last out: the queue's destructor still records into it
    std::shared_ptr<BayeuxQueue> queue = std::make_shared<BayeuxQueue>("test");
    std::shared_ptr<RecordingSubscriber> subscriber = makeSubscriber();
    Future<bool> end;
};

TEST_F(BayeuxQueueTest, DeliversInPushOrderWithinDemandThatSaturates) {
    push({"/1", "/2", "/3"});
    queue->subscribe(subscriber);
    EXPECT_EQ(log, Events{"subscribe"}) << "queued messages wait for a request";
    EXPECT_EQ(queue->bufferSize(), 3u);
    subscriber->request(2);
    EXPECT_EQ(log, (Events{"subscribe", "next /1", "next /2"}));
    subscriber->request(0);
    EXPECT_EQ(log.size(), 3u) << "zero adds nothing";
    subscriber->request(5);
    push({"/4"});
    EXPECT_EQ(log, (Events{"subscribe", "next /1", "next /2", "next /3", "next /4"}));
    EXPECT_EQ(queue->bufferSize(), 0u);
    for (const unsigned long n : {unlimited, unlimited, 1ul}) {
        subscriber->request(n);
    }
    push({"/5", "/6", "/7", "/8", "/9"});
    EXPECT_EQ(log.size(), 10u) << "demand saturates instead of wrapping, overflowing to zero or being ignored";
}

TEST_F(BayeuxQueueTest, RequestOrCancelFromOnNextTakesEffectWithoutRecursion) {
    push({"/0", "/1", "/2", "/3", "/4"});
    const auto requester = makeSubscriber(1);
    requester->actOnEachItem([&requester] { requester->request(1); });
    queue->subscribe(requester);
    EXPECT_EQ(log, (Events{"subscribe", "next /0", "next /1", "next /2", "next /3", "next /4"}));
    EXPECT_EQ(requester->overlaps, 0) << "a request from onNext does not recurse";
    requester->cancel();
    push({"/5", "/6"});
    queue->subscribe(subscriber);
    subscriber->onItem = [this](auto&) { subscriber->cancel(); };
    subscriber->request(2);
    EXPECT_EQ(log.back(), "next /5");
    EXPECT_EQ(queue->bufferSize(), 1u);
}

TEST_F(BayeuxQueueTest, AnEndedQueueIgnoresEverythingAfter) {
    for (const bool failing : {false, true}) {
        log.clear();
        queue = std::make_shared<BayeuxQueue>("ended");
        subscriber = makeSubscriber();
        Future<bool> ended = queue->getFuture();
        queue->subscribe(subscriber);
        push({"/dropped"});
        failing ? fail("broken") : queue->done();
        EXPECT_EQ(log, (Events{"subscribe", failing ? "error broken" : "complete"}));
        EXPECT_EQ(ended.get(), !failing);
        auto late = message("/late");
        queue->setValue(std::move(late));
        EXPECT_NE(late, nullptr) << "an ended queue leaves the message with its caller";
        fail("late");
        queue->doneWhenEmpty();
        queue->done();
        subscriber->request(10);
        EXPECT_EQ(log.size(), 2u);
        EXPECT_THROW(queue->getFuture(), std::runtime_error);
        EXPECT_THROW(queue->subscribe(makeSubscriber(10)), std::invalid_argument) << "the queue keeps its subscriber";
    }
    BayeuxQueue unowned("unowned");
    EXPECT_THROW(unowned.subscribe(makeSubscriber(10)), std::bad_weak_ptr);
    EXPECT_EQ(log.size(), 2u);
}

TEST_F(BayeuxQueueTest, DoneWhenEmptyEndsAfterTheLastMessageAndAnEarlyEndReachesEveryLaterSubscriber) {
    renew();
    queue->subscribe(subscriber);
    push({"/1"});
    queue->doneWhenEmpty();
    push({"/2"});
    fail("ignored");
    EXPECT_EQ(log, Events{"subscribe"}) << "without demand the queue stays open";
    subscriber->request(2);
    EXPECT_EQ(log, (Events{"subscribe", "next /1", "next /2", "complete", "end true"}));
    renew();
    queue->subscribe(makeSubscriber());
    queue->doneWhenEmpty();
    EXPECT_EQ(log, (Events{"subscribe", "complete", "end true"})) << "an empty queue ends at once, without demand";
    for (const bool failing : {false, true}) {
        renew();
        failing ? fail("early") : queue->doneWhenEmpty();
        queue->subscribe(makeSubscriber(1));
        queue->subscribe(makeSubscriber(1));
        const char* const told = failing ? "error early" : "complete";
        EXPECT_EQ(log, (Events{failing ? "end false" : "end true", "subscribe", told, "subscribe", told}));
    }
}

TEST_F(BayeuxQueueTest, OneSubscriberAtATimeAndCancelKeepsMessagesForTheNext) {
    renew();
    queue->subscribe(subscriber);
    try {
        queue->subscribe(makeSubscriber(1));
        FAIL() << "a second subscriber was accepted";
    } catch (const std::invalid_argument& refused) {
        EXPECT_STREQ(refused.what(), "Only one subscription allowed.");
    }
    subscriber->request(3);
    push({"/1"});
    subscriber->cancel();
    EXPECT_TRUE(subscriber->subscription.expired()) << "the subscription dies with the cancel";
    push({"/2", "/3"});
    EXPECT_EQ(queue->bufferSize(), 2u);
    const auto successor = makeSubscriber();
    queue->subscribe(successor);
    EXPECT_EQ(log, (Events{"subscribe", "next /1", "subscribe"})) << "a new subscriber starts with no demand";
    successor->request(5);
    queue->done();
    EXPECT_EQ(log, (Events{"subscribe", "next /1", "subscribe", "next /2", "next /3", "complete", "end true"}));
}

TEST_F(BayeuxQueueTest, ThrowingSubscriberLosesOnlyTheMessageInFlight) {
    queue->subscribe(subscriber);
    subscriber->request(2);
    subscriber->onItem = [](auto&) { throw std::runtime_error("subscriber failed"); };
    EXPECT_NO_THROW(push({"/lost"}));
    subscriber->onItem = nullptr;
    push({"/2", "/3"});
    EXPECT_EQ(log, (Events{"subscribe", "next /lost", "next /2"})) << "the lost message spent its demand";
    EXPECT_EQ(queue->bufferSize(), 1u);
    queue->doneWhenEmpty();
    subscriber->request(1);
    EXPECT_EQ(log.back(), "complete");
}

TEST_F(BayeuxQueueTest, DestructionCompletesAnOpenQueueAndFreesEveryMessage) {
    const auto delivered = std::make_shared<common::DataBuffer>(), undelivered = std::make_shared<common::DataBuffer>();
    renew();
    queue->subscribe(subscriber);
    subscriber->request(1);
    queue->setValue(message("/delivered", delivered));
    EXPECT_EQ(delivered.use_count(), 2) << "the queue keeps nothing of a delivered message";
    queue->setValue(message("/undelivered", undelivered));
    queue.reset();
    EXPECT_EQ(log, (Events{"subscribe", "next /delivered", "complete", "end true"}));
    EXPECT_TRUE(subscriber->subscription.expired());
    EXPECT_EQ(undelivered.use_count(), 1);
}

TEST_F(BayeuxQueueTest, SubscriptionWithoutItsQueueRefusesLoudly) {
    common::installStderrLogSink();
    queue->subscribe(subscriber);
    const std::shared_ptr<Subscription> kept = subscriber->subscription.lock();
    const auto expectRefused = [](const std::function<void()>& call, const char* text) {
        testing::internal::CaptureStderr();
        try {
            call();
            ADD_FAILURE() << "no exception for " << text;
        } catch (const std::runtime_error& refused) {
            EXPECT_STREQ(refused.what(), text);
        }
        const std::string trace = testing::internal::GetCapturedStderr();
        EXPECT_NE(trace.find("Cancelled with no publisher"), std::string::npos) << trace;
        EXPECT_NE(trace.find("korvane_routing_tests"), std::string::npos) << "a stack trace goes to standard error";
        EXPECT_EQ(trace.back(), '\n');
    };
    const auto request = [&] { kept->request(1); };
    queue.reset();
    EXPECT_EQ(log, (Events{"subscribe", "complete"}));
    expectRefused(request, "No publisher, can not request!");
    expectRefused([&] { kept->cancel(); }, "No publisher, can not cancel!");
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

TEST(BayeuxQueueConcurrency, ProducersAndARequesterOnSeparateThreads) {
    constexpr int producerCount = 4, messagesEach = 20000, batch = 16;
    const auto queue = std::make_shared<BayeuxQueue>("concurrency");
    Future<bool> end = queue->getFuture();
    Events log;
    const auto subscriber = std::make_shared<RecordingSubscriber>(log);
    std::atomic<long> received{0};
    subscriber->actOnEachItem([&received] { ++received; });
    queue->subscribe(subscriber);
    runProducers(queue, producerCount, messagesEach, [&received, subscription = subscriber->subscription.lock()] {
        for (long requested = 0; received.load() < producerCount * messagesEach;) {
            if (requested - received.load() < batch) {
                requested += batch;
                subscription->request(batch);
            } else {
                std::this_thread::yield();
            }
        }
    });
    queue->doneWhenEmpty();
    EXPECT_EQ(countInPushOrder(log, producerCount), std::vector<int>(producerCount, messagesEach));
    EXPECT_EQ(subscriber->overlaps, 0);
    EXPECT_EQ(log.back(), "complete");
    EXPECT_TRUE(end.get());
}

TEST(BayeuxQueueConcurrency, EndingRacesWithProducersAndEndsOnce) {
    for (int round = 0; round < 200; ++round) {
        const auto queue = std::make_shared<BayeuxQueue>("race");
        Future<bool> end = queue->getFuture();
        Events log;
        const auto subscriber = std::make_shared<RecordingSubscriber>(log, unlimited);
        subscriber->actOnEachItem([] {});
        queue->subscribe(subscriber);
        runProducers(queue, 3, 50, [&queue, round] { round % 2 == 0 ? queue->doneWhenEmpty() : queue->done(); });
        queue->done();
        ASSERT_TRUE(end.get());
        ASSERT_EQ(std::count(log.begin(), log.end(), "complete"), 1);
        ASSERT_EQ(subscriber->overlaps, 0);
        countInPushOrder(log, 3);
    }
}

}  // namespace
}  // namespace korvane::bayeux
