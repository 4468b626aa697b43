#include "korvane/routing/bayeux_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "korvane/codec/messages.h"
#include "korvane/frame/logger.h"

namespace korvane::bayeux {
namespace {

using reactive_streams::Subscription;

std::unique_ptr<Message> message(const std::string& channel) {
    return std::make_unique<PublishRequest>(channel);
}

std::string describe(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& caught) {
        return caught.what();
    }
}

// Records every event as text; hooks let a test act from inside a callback.
// Single-threaded tests only.
class RecordingSubscriber : public BayeuxQueue::Subscriber {
public:
    explicit RecordingSubscriber(unsigned long requestOnSubscribe = 0) : initialRequest(requestOnSubscribe) {}

    void onSubscribe(std::weak_ptr<Subscription> handed) override {
        subscription = handed;
        events.push_back("subscribe");
        if (initialRequest != 0) {
            request(initialRequest);
        }
    }
    void onNext(std::unique_ptr<Message>&& value) override {
        ++depth;
        maxDepth = std::max(maxDepth, depth);
        events.push_back("next " + dynamic_cast<PublishRequest&>(*value).channel);
        if (onNextHook) {
            onNextHook(value);
        }
        --depth;
    }
    void onError(std::exception_ptr error) override { events.push_back("error " + describe(error)); }
    void onComplete() override {
        events.push_back("complete");
        if (onCompleteHook) {
            onCompleteHook();
        }
    }
    Future<bool> getFuture() override { return makeReadyFuture(true); }

    void request(unsigned long n) { subscription.lock()->request(n); }
    void cancel() { subscription.lock()->cancel(); }

    unsigned long initialRequest;
    std::weak_ptr<Subscription> subscription;
    std::vector<std::string> events;
    std::function<void(std::unique_ptr<Message>&)> onNextHook;
    std::function<void()> onCompleteHook;
    int depth = 0;
    int maxDepth = 0;
};

using Events = std::vector<std::string>;

class BayeuxQueueTest : public testing::Test {
protected:
    std::shared_ptr<BayeuxQueue> queue = std::make_shared<BayeuxQueue>("test");
    std::shared_ptr<RecordingSubscriber> subscriber = std::make_shared<RecordingSubscriber>();
};

TEST_F(BayeuxQueueTest, DeliversInPushOrderWithinDemand) {
    queue->setValue(message("/1"));
    queue->setValue(message("/2"));
    queue->setValue(message("/3"));
    queue->subscribe(subscriber);
    EXPECT_EQ(subscriber->events, Events{"subscribe"}) << "queued messages wait for a request";
    EXPECT_EQ(queue->bufferSize(), 3u);

    subscriber->request(2);
    EXPECT_EQ(subscriber->events, (Events{"subscribe", "next /1", "next /2"}));
    subscriber->request(0);
    EXPECT_EQ(subscriber->events.size(), 3u) << "zero adds nothing";
    subscriber->request(5);
    queue->setValue(message("/4"));
    EXPECT_EQ(subscriber->events, (Events{"subscribe", "next /1", "next /2", "next /3", "next /4"}));
    EXPECT_EQ(queue->bufferSize(), 0u);
}

TEST_F(BayeuxQueueTest, DemandSaturatesInsteadOfWrapping) {
    queue->subscribe(subscriber);
    subscriber->request(std::numeric_limits<unsigned long>::max());
    subscriber->request(std::numeric_limits<unsigned long>::max());
    subscriber->request(1);
    for (int i = 0; i < 3; ++i) {
        queue->setValue(message("/m"));
    }
    EXPECT_EQ(subscriber->events.size(), 4u);
}

TEST_F(BayeuxQueueTest, RequestFromOnNextDoesNotRecurse) {
    for (int i = 0; i < 5; ++i) {
        queue->setValue(message("/" + std::to_string(i)));
    }
    subscriber->initialRequest = 1;
    subscriber->onNextHook = [this](std::unique_ptr<Message>&) { subscriber->request(1); };
    queue->subscribe(subscriber);
    EXPECT_EQ(subscriber->events, (Events{"subscribe", "next /0", "next /1", "next /2", "next /3", "next /4"}));
    EXPECT_EQ(subscriber->maxDepth, 1);
}

TEST_F(BayeuxQueueTest, DoneEndsAtOnceAndDropsWhatIsQueued) {
    Future<bool> end = queue->getFuture();
    queue->subscribe(subscriber);
    queue->setValue(message("/kept"));
    queue->done();
    EXPECT_EQ(subscriber->events, (Events{"subscribe", "complete"}));
    EXPECT_TRUE(end.get());

    auto late = message("/late");
    queue->setValue(std::move(late));
    EXPECT_NE(late, nullptr) << "an ended queue leaves the message with its caller";
    queue->setError(std::make_exception_ptr(std::runtime_error("late")));
    queue->doneWhenEmpty();
    queue->done();
    subscriber->request(10);
    EXPECT_EQ(subscriber->events, (Events{"subscribe", "complete"}));
    EXPECT_THROW(queue->getFuture(), std::runtime_error);

    auto next = std::make_shared<RecordingSubscriber>(10);
    EXPECT_THROW(queue->subscribe(next), std::invalid_argument) << "a done queue keeps its subscriber";
}

TEST_F(BayeuxQueueTest, DoneWhenEmptyEndsAfterTheLastMessage) {
    Future<bool> end = queue->getFuture();
    bool ended = false;
    Future<bool> observed = end.then([&ended](Future<bool>&& result) { return ended = result.get(); });
    queue->subscribe(subscriber);
    queue->setValue(message("/1"));
    queue->doneWhenEmpty();
    queue->setValue(message("/2"));
    queue->setError(std::make_exception_ptr(std::runtime_error("ignored")));
    EXPECT_EQ(subscriber->events, Events{"subscribe"}) << "without demand the queue stays open";
    EXPECT_FALSE(ended);

    subscriber->request(2);
    EXPECT_EQ(subscriber->events, (Events{"subscribe", "next /1", "next /2", "complete"}));
    EXPECT_TRUE(ended);
}

TEST_F(BayeuxQueueTest, DoneWhenEmptyOnEmptyQueueEndsWithoutDemandOrSubscriber) {
    queue->subscribe(subscriber);
    queue->doneWhenEmpty();
    EXPECT_EQ(subscriber->events, (Events{"subscribe", "complete"}));

    auto unsubscribed = std::make_shared<BayeuxQueue>("unsubscribed");
    Future<bool> end = unsubscribed->getFuture();
    unsubscribed->doneWhenEmpty();
    EXPECT_TRUE(end.get());
    auto late = std::make_shared<RecordingSubscriber>(1);
    unsubscribed->subscribe(late);
    EXPECT_EQ(late->events, (Events{"subscribe", "complete"}));
}

TEST_F(BayeuxQueueTest, ErrorGoesToTheSubscriberAndTheFutureCarriesFalse) {
    Future<bool> end = queue->getFuture();
    queue->subscribe(subscriber);
    queue->setValue(message("/waiting"));
    queue->setError(std::make_exception_ptr(std::runtime_error("broken")));
    EXPECT_EQ(subscriber->events, (Events{"subscribe", "error broken"}));
    EXPECT_FALSE(end.get());
    queue->done();
    subscriber->request(1);
    EXPECT_EQ(subscriber->events.size(), 2u);
}

TEST_F(BayeuxQueueTest, StoredErrorReachesEveryLaterSubscriber) {
    Future<bool> end = queue->getFuture();
    queue->setError(std::make_exception_ptr(std::runtime_error("early")));
    EXPECT_FALSE(end.get());
    auto second = std::make_shared<RecordingSubscriber>();
    queue->subscribe(subscriber);
    queue->subscribe(second);
    EXPECT_EQ(subscriber->events, (Events{"subscribe", "error early"}));
    EXPECT_EQ(second->events, (Events{"subscribe", "error early"}));
}

TEST_F(BayeuxQueueTest, OnlyOneSubscriberAtATime) {
    queue->subscribe(subscriber);
    auto intruder = std::make_shared<RecordingSubscriber>(1);
    try {
        queue->subscribe(intruder);
        FAIL() << "a second subscriber was accepted";
    } catch (const std::invalid_argument& refused) {
        EXPECT_STREQ(refused.what(), "Only one subscription allowed.");
    }
    EXPECT_TRUE(intruder->events.empty());
    subscriber->request(1);
    queue->setValue(message("/1"));
    EXPECT_EQ(subscriber->events, (Events{"subscribe", "next /1"}));
}

TEST_F(BayeuxQueueTest, CancelKeepsMessagesForTheNextSubscriber) {
    Future<bool> end = queue->getFuture();
    bool ended = false;
    Future<bool> observed = end.then([&ended](Future<bool>&&) { return ended = true; });
    queue->subscribe(subscriber);
    subscriber->request(3);
    queue->setValue(message("/1"));
    subscriber->cancel();
    EXPECT_TRUE(subscriber->subscription.expired()) << "the subscription dies with the cancel";
    queue->setValue(message("/2"));
    queue->setValue(message("/3"));
    EXPECT_EQ(queue->bufferSize(), 2u);
    EXPECT_FALSE(ended);

    auto successor = std::make_shared<RecordingSubscriber>();
    queue->subscribe(successor);
    EXPECT_EQ(successor->events, Events{"subscribe"}) << "a new subscriber starts with no demand";
    successor->request(5);
    queue->done();
    EXPECT_EQ(subscriber->events, (Events{"subscribe", "next /1"}));
    EXPECT_EQ(successor->events, (Events{"subscribe", "next /2", "next /3", "complete"}));
    EXPECT_TRUE(ended);
}

TEST_F(BayeuxQueueTest, CancelFromOnNextStopsTheDrain) {
    queue->setValue(message("/1"));
    queue->setValue(message("/2"));
    subscriber->initialRequest = 2;
    subscriber->onNextHook = [this](std::unique_ptr<Message>&) { subscriber->cancel(); };
    queue->subscribe(subscriber);
    EXPECT_EQ(subscriber->events, (Events{"subscribe", "next /1"}));
    EXPECT_EQ(queue->bufferSize(), 1u);
}

TEST_F(BayeuxQueueTest, ThrowingSubscriberLosesOnlyTheMessageInFlight) {
    queue->subscribe(subscriber);
    subscriber->request(2);
    subscriber->onNextHook = [](std::unique_ptr<Message>&) { throw std::runtime_error("subscriber failed"); };
    EXPECT_NO_THROW(queue->setValue(message("/lost")));
    subscriber->onNextHook = nullptr;
    queue->setValue(message("/2"));
    queue->setValue(message("/3"));
    EXPECT_EQ(subscriber->events, (Events{"subscribe", "next /lost", "next /2"})) << "the lost message spent its demand";
    EXPECT_EQ(queue->bufferSize(), 1u);
    queue->doneWhenEmpty();
    subscriber->request(1);
    EXPECT_EQ(subscriber->events.back(), "complete");
}

TEST_F(BayeuxQueueTest, MessageLeftInOnNextIsDestroyedByTheQueue) {
    auto observed = std::make_shared<int>(0);
    class Tracked : public PublishRequest {
    public:
        explicit Tracked(std::shared_ptr<int> witness) : PublishRequest("/tracked"), held(std::move(witness)) {}
        std::shared_ptr<int> held;
    };
    queue->subscribe(subscriber);
    subscriber->request(1);
    queue->setValue(std::make_unique<Tracked>(observed));
    EXPECT_EQ(observed.use_count(), 1);
}

TEST_F(BayeuxQueueTest, DestructionCompletesAnOpenQueue) {
    Future<bool> end = queue->getFuture();
    queue->subscribe(subscriber);
    queue->setValue(message("/undelivered"));
    queue.reset();
    EXPECT_EQ(subscriber->events, (Events{"subscribe", "complete"}));
    EXPECT_TRUE(end.get());
    EXPECT_TRUE(subscriber->subscription.expired());
}

TEST_F(BayeuxQueueTest, SubscriptionWithoutItsQueueRefusesLoudly) {
    common::installStderrLogSink();
    queue->subscribe(subscriber);
    const std::shared_ptr<Subscription> kept = subscriber->subscription.lock();
    queue.reset();
    const struct {
        std::function<void()> call;
        const char* text;
    } cases[] = {
        {[&] { kept->request(1); }, "No publisher, can not request!"},
        {[&] { kept->cancel(); }, "No publisher, can not cancel!"},
    };
    for (const auto& c : cases) {
        testing::internal::CaptureStderr();
        try {
            c.call();
            ADD_FAILURE() << "no exception for " << c.text;
        } catch (const std::runtime_error& refused) {
            EXPECT_STREQ(refused.what(), c.text);
        }
        const std::string trace = testing::internal::GetCapturedStderr();
        EXPECT_NE(trace.find("Cancelled with no publisher"), std::string::npos) << trace;
        EXPECT_NE(trace.find("korvane_routing_tests"), std::string::npos) << "a stack trace goes to standard error";
        EXPECT_EQ(trace.back(), '\n');
    }
}

TEST_F(BayeuxQueueTest, RequestFromOnCompleteDuringDestructionIsContained) {
    queue->subscribe(subscriber);
    const std::shared_ptr<Subscription> kept = subscriber->subscription.lock();
    bool refused = false;
    subscriber->onCompleteHook = [&] {
        testing::internal::CaptureStderr();
        try {
            kept->request(1);
        } catch (const std::runtime_error&) {
            refused = true;
        }
        testing::internal::GetCapturedStderr();
    };
    queue.reset();
    EXPECT_TRUE(refused);
}

TEST(BayeuxQueueLog, TracesTheLifeOfAQueueUnderItsId) {
    common::setLogLevels("korvane::bayeux::queue", 8 | 512);
    common::installStderrLogSink();
    testing::internal::CaptureStderr();
    auto queue = std::make_shared<BayeuxQueue>("logged");
    const std::string id = "logged_" + std::to_string(reinterpret_cast<unsigned long>(queue.get()));
    auto subscriber = std::make_shared<RecordingSubscriber>(1);
    queue->subscribe(subscriber);
    queue->setValue(message("/1"));
    queue->doneWhenEmpty();
    queue->setError(std::make_exception_ptr(std::runtime_error("late")));
    queue.reset();
    const std::string log = testing::internal::GetCapturedStderr();
    common::setLogLevels("korvane::bayeux::queue", common::defaultLogLevels);

    for (const std::string& line :
         {"Bayeux queue constructor: " + id, "deliver: " + id + ", 0, 1, 0", "setValue: " + id + " ",
          "deliver: " + id + ", 0, 1, 1", "onNext: " + id + ", ", "doneWhenEmpty: " + id,
          "deliver: " + id + ", 1, 0, 0", "doDone: " + id, "setError: " + id, "Bayeux queue destructor: " + id}) {
        EXPECT_NE(log.find(line), std::string::npos) << line << "\n" << log;
    }
}

TEST(BayeuxQueueOwnership, SubscribeNeedsSharedOwnership) {
    BayeuxQueue unowned("unowned");
    auto subscriber = std::make_shared<RecordingSubscriber>();
    EXPECT_THROW(unowned.subscribe(subscriber), std::bad_weak_ptr);
    EXPECT_TRUE(subscriber->events.empty());
}

// A message that names its producer and its place in that producer's sequence.
class NumberedMessage : public Message {
public:
    NumberedMessage(int producerIndex, int sequenceNumber) : producer(producerIndex), sequence(sequenceNumber) {}
    int producer;
    int sequence;
};

// Checks ordering and overlap on whatever thread the queue calls it from.
class CheckingSubscriber : public BayeuxQueue::Subscriber {
public:
    explicit CheckingSubscriber(int producers) : nextSequence(producers, 0) {}

    void onSubscribe(std::weak_ptr<Subscription> handed) override { subscription = handed.lock(); }
    void onNext(std::unique_ptr<Message>&& value) override {
        if (inside.exchange(true)) {
            overlapped = true;
        }
        const auto& numbered = static_cast<const NumberedMessage&>(*value);
        if (numbered.sequence != nextSequence[numbered.producer]) {
            outOfOrder = true;
        }
        nextSequence[numbered.producer] = numbered.sequence + 1;
        inside = false;
        received.fetch_add(1);
    }
    void onError(std::exception_ptr) override { failed = true; }
    void onComplete() override { completed = true; }
    Future<bool> getFuture() override { return makeReadyFuture(true); }

    std::shared_ptr<Subscription> subscription;
    std::vector<int> nextSequence;  // touched only inside onNext, which never overlaps
    std::atomic<bool> inside{false};
    std::atomic<bool> overlapped{false};
    std::atomic<bool> outOfOrder{false};
    std::atomic<bool> failed{false};
    std::atomic<bool> completed{false};
    std::atomic<int> received{0};
};

TEST(BayeuxQueueConcurrency, ProducersAndARequesterOnSeparateThreads) {
    constexpr int producerCount = 4;
    constexpr int messagesEach = 20000;
    constexpr int total = producerCount * messagesEach;
    constexpr int batch = 16;
    auto queue = std::make_shared<BayeuxQueue>("concurrency");
    Future<bool> end = queue->getFuture();
    auto subscriber = std::make_shared<CheckingSubscriber>(producerCount);
    queue->subscribe(subscriber);

    std::thread requester([&subscriber] {
        long requested = 0;
        while (subscriber->received.load() < total) {
            if (requested - subscriber->received.load() < batch) {
                requested += batch;
                subscriber->subscription->request(batch);
            } else {
                std::this_thread::yield();
            }
        }
    });
    std::vector<std::thread> producers;
    for (int p = 0; p < producerCount; ++p) {
        producers.emplace_back([&queue, p] {
            for (int i = 0; i < messagesEach; ++i) {
                queue->setValue(std::make_unique<NumberedMessage>(p, i));
            }
        });
    }
    for (std::thread& producer : producers) {
        producer.join();
    }
    requester.join();
    queue->doneWhenEmpty();

    EXPECT_EQ(subscriber->received.load(), total);
    EXPECT_FALSE(subscriber->overlapped.load());
    EXPECT_FALSE(subscriber->outOfOrder.load());
    EXPECT_EQ(subscriber->nextSequence, std::vector<int>(producerCount, messagesEach));
    EXPECT_TRUE(subscriber->completed.load());
    EXPECT_FALSE(subscriber->failed.load());
    EXPECT_TRUE(end.get());
}

TEST(BayeuxQueueConcurrency, EndingRacesWithProducersAndEndsOnce) {
    constexpr int producerCount = 3;
    constexpr int rounds = 200;
    for (int round = 0; round < rounds; ++round) {
        auto queue = std::make_shared<BayeuxQueue>("race");
        Future<bool> end = queue->getFuture();
        auto subscriber = std::make_shared<CheckingSubscriber>(producerCount);
        queue->subscribe(subscriber);
        subscriber->subscription->request(std::numeric_limits<unsigned long>::max());
        std::vector<std::thread> threads;
        for (int p = 0; p < producerCount; ++p) {
            threads.emplace_back([&queue, p] {
                for (int i = 0; i < 50; ++i) {
                    queue->setValue(std::make_unique<NumberedMessage>(p, i));
                }
            });
        }
        threads.emplace_back([&queue, round] {
            if (round % 2 == 0) {
                queue->doneWhenEmpty();
            } else {
                queue->done();
            }
        });
        for (std::thread& thread : threads) {
            thread.join();
        }
        queue->done();
        ASSERT_TRUE(end.get());
        ASSERT_TRUE(subscriber->completed.load());
        ASSERT_FALSE(subscriber->overlapped.load());
        ASSERT_FALSE(subscriber->outOfOrder.load());
    }
}

}  // namespace
}  // namespace korvane::bayeux
