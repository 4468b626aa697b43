#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "korvane/frame/cached_value_publisher.h"
#include "korvane/frame/callback_subscriber.h"
#include "korvane/frame/one_shot_publisher.h"
#include "korvane/frame/reducing_subscriber.h"
#include "korvane/frame/transform_processor.h"

namespace korvane::reactive_streams {
namespace {

constexpr unsigned long unlimited = std::numeric_limits<unsigned long>::max();

std::string errorText(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "(no exception)";
}

std::string errorText(std::exception_ptr error) {
    return errorText([&error] { std::rethrow_exception(error); });
}

// Records every call as a line of text; requests on demand through its subscription.
template <class T>
class RecordingSubscriber : public SubscriberAPI<T> {
public:
    explicit RecordingSubscriber(unsigned long initialRequest = 0) : initialRequest(initialRequest) {}

    void onSubscribe(std::weak_ptr<Subscription> given) override {
        subscription = given;
        events.push_back("subscribe");
        if (initialRequest != 0) {
            request(initialRequest);
        }
    }
    void onNext(T&& value) override {
        events.push_back("next " + describe(value));
        if (onItem) {
            onItem();
        }
    }
    void onComplete() override { events.push_back("complete"); }
    void onError(std::exception_ptr error) override { events.push_back("error " + errorText(error)); }
    Future<bool> getFuture() override { return makeReadyFuture<bool>(true); }

    void request(unsigned long n) { subscription.lock()->request(n); }
    void cancel() { subscription.lock()->cancel(); }

    std::vector<std::string> events;
    std::weak_ptr<Subscription> subscription;
    std::function<void()> onItem;

private:
    static std::string describe(const std::string& value) { return value; }
    static std::string describe(int value) { return std::to_string(value); }

    unsigned long initialRequest;
};

// An upstream that only records what is asked of it.
class RecordingSubscription : public Subscription {
public:
    void request(unsigned long n) override { requests.push_back(n); }
    void cancel() override { ++cancels; }

    std::vector<unsigned long> requests;
    int cancels = 0;
};

using Events = std::vector<std::string>;
using Processor = TransformProcessor<int, std::string>;

std::shared_ptr<Processor> makeProcessor(int* transformCalls = nullptr) {
    return std::make_shared<Processor>([transformCalls](int&& value) {
        if (transformCalls != nullptr) {
            ++*transformCalls;
        }
        return "#" + std::to_string(value);
    });
}

bool resolvedValue(Future<bool>&& future) { return future.get(); }

TEST(TransformProcessor, MapsItemsWithinDemandAndCompletes) {
    auto processor = makeProcessor();
    auto upstream = std::make_shared<RecordingSubscription>();
    auto downstream = std::make_shared<RecordingSubscriber<std::string>>();
    Future<bool> done = processor->getFuture();

    processor->subscribe(downstream);
    downstream->request(2);  // no upstream yet: kept as demand
    processor->onSubscribe(upstream);
    processor->onNext(1);
    processor->onNext(2);
    processor->onComplete();
    processor->onNext(3);  // after completion the downstream is gone

    EXPECT_EQ(upstream->requests, (std::vector<unsigned long>{2}));
    EXPECT_EQ(downstream->events, (Events{"subscribe", "next #1", "next #2", "complete"}));
    EXPECT_TRUE(resolvedValue(std::move(done)));
}

TEST(TransformProcessor, PassesTheWholeOutstandingDemandUpstreamSaturating) {
    auto processor = makeProcessor();
    auto upstream = std::make_shared<RecordingSubscription>();
    auto downstream = std::make_shared<RecordingSubscriber<std::string>>();
    processor->onSubscribe(upstream);
    processor->subscribe(downstream);

    downstream->request(5);
    downstream->request(5);
    downstream->request(0);
    processor->onNext(1);
    processor->request(unlimited);
    processor->request(3);

    const unsigned long all = unlimited;
    EXPECT_EQ(upstream->requests, (std::vector<unsigned long>{5, 10, 10, all, all}));
}

TEST(TransformProcessor, ItemsBeforeSubscribeAreLostUntransformed) {
    int transformCalls = 0;
    auto processor = makeProcessor(&transformCalls);
    processor->onNext(1);
    EXPECT_EQ(transformCalls, 0);

    auto downstream = std::make_shared<RecordingSubscriber<std::string>>(unlimited);
    processor->subscribe(downstream);
    processor->onNext(2);
    EXPECT_EQ(transformCalls, 1);
    EXPECT_EQ(downstream->events, (Events{"subscribe", "next #2"}));
}

TEST(TransformProcessor, LateSubscriberSeesHowTheStreamEnded) {
    auto completed = makeProcessor();
    completed->onComplete();
    auto afterComplete = std::make_shared<RecordingSubscriber<std::string>>();
    completed->subscribe(afterComplete);
    EXPECT_EQ(afterComplete->events, (Events{"subscribe", "complete"}));

    auto failed = makeProcessor();
    Future<bool> done = failed->getFuture();
    failed->onError(std::make_exception_ptr(std::runtime_error("upstream broke")));
    auto afterError = std::make_shared<RecordingSubscriber<std::string>>();
    failed->subscribe(afterError);
    EXPECT_EQ(afterError->events, (Events{"subscribe", "error upstream broke"}));
    EXPECT_EQ(errorText([&] { done.get(); }), "upstream broke");

    EXPECT_EQ(errorText([&] { failed->subscribe(std::make_shared<RecordingSubscriber<std::string>>()); }),
              "Only one subscription is supported");
}

TEST(TransformProcessor, DownstreamCancelCancelsUpstreamAndCompletesDownstream) {
    auto processor = makeProcessor();
    auto upstream = std::make_shared<RecordingSubscription>();
    auto downstream = std::make_shared<RecordingSubscriber<std::string>>(1);
    Future<bool> done = processor->getFuture();
    processor->onSubscribe(upstream);
    processor->subscribe(downstream);

    downstream->cancel();
    downstream->cancel();
    processor->onError(std::make_exception_ptr(std::runtime_error("ignored")));

    EXPECT_EQ(upstream->cancels, 1);
    EXPECT_EQ(downstream->events, (Events{"subscribe", "complete"}));
    EXPECT_FALSE(resolvedValue(std::move(done)));

    // A subscription that arrives after the cancel is left running.
    auto late = std::make_shared<RecordingSubscription>();
    processor->onSubscribe(late);
    EXPECT_EQ(late->cancels, 0);
    EXPECT_TRUE(late->requests.empty());
}

TEST(TransformProcessor, ErrorsOfTransformAndDownstreamLeaveTheStreamRunning) {
    auto processor = std::make_shared<Processor>([](int&& value) -> std::string {
        if (value < 0) {
            throw std::invalid_argument("negative");
        }
        return std::to_string(value);
    });
    auto downstream = std::make_shared<RecordingSubscriber<std::string>>(unlimited);
    processor->subscribe(downstream);
    EXPECT_EQ(errorText([&] { processor->onNext(-1); }), "negative");

    downstream->onItem = [] { throw std::runtime_error("downstream refused"); };
    EXPECT_EQ(errorText([&] { processor->onNext(1); }), "downstream refused");
    downstream->onItem = nullptr;
    processor->onNext(2);  // the lock was released by the unwinding
    processor->onComplete();
    EXPECT_EQ(downstream->events, (Events{"subscribe", "next 1", "next 2", "complete"}));

    auto empty = std::make_shared<Processor>(std::function<std::string(int&&)>());
    empty->subscribe(std::make_shared<RecordingSubscriber<std::string>>());
    EXPECT_THROW(empty->onNext(1), std::bad_function_call);
}

TEST(TransformProcessor, DestructionCompletesAnUnfinishedStream) {
    auto downstream = std::make_shared<RecordingSubscriber<std::string>>();
    Future<bool> done;
    {
        auto processor = makeProcessor();
        done = processor->getFuture();
        processor->subscribe(downstream);
    }
    EXPECT_EQ(downstream->events, (Events{"subscribe", "complete"}));
    EXPECT_TRUE(resolvedValue(std::move(done)));
    EXPECT_TRUE(downstream->subscription.expired());
}

TEST(OneShotPublisher, DeliversItsValueAndCompletesOnTheFirstRequestOnly) {
    auto publisher = std::make_shared<OneShotPublisher<std::string>>("body");
    auto subscriber = std::make_shared<RecordingSubscriber<std::string>>();
    publisher->subscribe(subscriber);
    EXPECT_EQ(subscriber->events, (Events{"subscribe"}));

    subscriber->request(1);
    subscriber->request(1);
    EXPECT_EQ(subscriber->events, (Events{"subscribe", "next body", "complete"}));
    EXPECT_TRUE(resolvedValue(publisher->getFuture()));
    EXPECT_TRUE(resolvedValue(publisher->getFuture()));

    EXPECT_EQ(errorText([&] { publisher->subscribe(std::make_shared<RecordingSubscriber<std::string>>()); }),
              "Only one subscription allowed.");
}

TEST(OneShotPublisher, CancelBeforeRequestDeliversNothingEver) {
    auto publisher = std::make_shared<OneShotPublisher<std::string>>("body");
    auto subscriber = std::make_shared<RecordingSubscriber<std::string>>();
    publisher->subscribe(subscriber);
    subscriber->cancel();
    subscriber->request(5);
    EXPECT_EQ(subscriber->events, (Events{"subscribe"}));

    auto eager = std::make_shared<RecordingSubscriber<std::string>>(1);
    std::make_shared<OneShotPublisher<std::string>>("now")->subscribe(eager);
    EXPECT_EQ(eager->events, (Events{"subscribe", "next now", "complete"}));
}

using Reducer = std::function<std::string(std::string&&, std::string&&)>;

Reducer concatenate() {
    return [](std::string&& chunk, std::string&& sum) { return sum + chunk; };
}

TEST(ReducingSubscriber, ReduceOverAStreamThatEndsInsideSubscribeIsAlreadyResolved) {
    auto publisher = std::make_shared<OneShotPublisher<std::string>>("whole");
    Future<std::string> result = reduce<std::string, std::string>(publisher, concatenate(), ">");
    bool ranInsideThen = false;
    Future<std::string> seen = result.then([&ranInsideThen](Future<std::string>&& f) {
        ranInsideThen = true;
        return f.get();
    });
    EXPECT_TRUE(ranInsideThen);
    EXPECT_EQ(seen.get(), ">whole");

    Future<std::string> nothing = reduce<std::string, std::string>(nullptr, concatenate(), "initial");
    EXPECT_EQ(nothing.get(), "initial");
}

TEST(ReducingSubscriber, FoldsACachedStreamAndPassesItsError) {
    using Source = CachedValuePublisher<std::string, std::function<void()>>;
    auto source = std::make_shared<Source>(nullptr);
    source->publish("a");
    Future<std::string> result = reduce<std::string, std::string>(source, concatenate(), "");
    source->publish("b");
    source->publish("c");
    source->finish();
    EXPECT_EQ(result.get(), "abc");

    auto failing = std::make_shared<Source>(nullptr);
    Future<std::string> failed = reduce<std::string, std::string>(failing, concatenate(), "");
    failing->setError(std::make_exception_ptr(std::runtime_error("body cut off")));
    EXPECT_EQ(errorText([&] { failed.get(); }), "body cut off");
    EXPECT_FALSE(resolvedValue(failing->getFuture()));
}

TEST(ReducingSubscriber, ThrowingReducerCancelsAndYieldsWhatItHas) {
    auto upstream = std::make_shared<RecordingSubscription>();
    auto subscriber = std::make_shared<ReducingSubscriber<int, int>>(
        [](int&& item, int&& sum) {
            if (item < 0) {
                throw std::invalid_argument("bad item");
            }
            return sum + item;
        },
        100);
    subscriber->onSubscribe(upstream);
    Future<bool> done = subscriber->getFuture();
    subscriber->onNext(1);
    subscriber->onNext(2);
    subscriber->onNext(-1);
    subscriber->onNext(4);
    subscriber->onComplete();

    EXPECT_EQ(upstream->requests, (std::vector<unsigned long>{unlimited}));
    EXPECT_EQ(upstream->cancels, 1);
    EXPECT_FALSE(resolvedValue(std::move(done)));
    EXPECT_FALSE(resolvedValue(subscriber->getFuture()));
}

TEST(ReducingSubscriber, GetFutureFollowsTheStatus) {
    auto makeSubscriber = [] {
        return std::make_shared<ReducingSubscriber<int, int>>([](int&& a, int&& b) { return a + b; }, 0);
    };
    auto completed = makeSubscriber();
    Future<bool> replaced = completed->getFuture();
    Future<bool> current = completed->getFuture();
    EXPECT_EQ(errorText([&] { replaced.get(); }), "Promise destroyed before it provided a value.");
    completed->onComplete();
    EXPECT_TRUE(resolvedValue(std::move(current)));
    EXPECT_TRUE(resolvedValue(completed->getFuture()));

    auto failed = makeSubscriber();
    failed->onError(std::make_exception_ptr(std::runtime_error("stored")));
    EXPECT_EQ(errorText([&] { failed->getFuture().get(); }), "stored");

    auto cancelled = makeSubscriber();
    cancelled->cancel();
    EXPECT_FALSE(resolvedValue(cancelled->getFuture()));

    auto orphan = makeSubscriber();
    std::weak_ptr<Subscription> gone;
    {
        auto upstream = std::make_shared<RecordingSubscription>();
        gone = upstream;
    }
    EXPECT_EQ(errorText([&] { orphan->onSubscribe(gone); }), "Subscription went away!");
}

TEST(ReducingSubscriber, DestructionCancelsUpstream) {
    auto upstream = std::make_shared<RecordingSubscription>();
    {
        auto subscriber = std::make_shared<ReducingSubscriber<int, int>>([](int&& a, int&& b) { return a + b; }, 0);
        subscriber->onSubscribe(upstream);
    }
    EXPECT_EQ(upstream->cancels, 1);
}

TEST(CallbackSubscriber, HandsItemsToTheCallbackUntilFinished) {
    std::vector<int> seen;
    auto upstream = std::make_shared<RecordingSubscription>();
    auto subscriber = std::make_shared<CallbackSubscriber<int>>([&seen](int&& value) { seen.push_back(value); });
    Future<bool> done = subscriber->getFuture();
    subscriber->onSubscribe(upstream);
    subscriber->onNext(1);
    subscriber->onNext(2);
    subscriber->onComplete();
    subscriber->onNext(3);
    subscriber->cancel();

    EXPECT_EQ(upstream->requests, (std::vector<unsigned long>{unlimited}));
    EXPECT_EQ(upstream->cancels, 0);
    EXPECT_EQ(seen, (std::vector<int>{1, 2}));
    EXPECT_TRUE(resolvedValue(std::move(done)));
}

TEST(CallbackSubscriber, CancelErrorAndDestructionEndTheStream) {
    auto upstream = std::make_shared<RecordingSubscription>();
    auto cancelled = std::make_shared<CallbackSubscriber<int>>([](int&&) { ADD_FAILURE() << "delivered"; });
    Future<bool> cancelledDone = cancelled->getFuture();
    cancelled->onSubscribe(upstream);
    cancelled->cancel();
    cancelled->onNext(1);
    EXPECT_EQ(upstream->cancels, 1);
    EXPECT_FALSE(resolvedValue(std::move(cancelledDone)));

    auto lateUpstream = std::make_shared<RecordingSubscription>();
    cancelled->onSubscribe(lateUpstream);
    EXPECT_TRUE(lateUpstream->requests.empty());

    auto failed = std::make_shared<CallbackSubscriber<int>>(nullptr);
    Future<bool> failedDone = failed->getFuture();
    failed->onError(std::make_exception_ptr(std::runtime_error("socket closed")));
    EXPECT_EQ(errorText([&] { failedDone.get(); }), "socket closed");

    auto dropped = std::make_shared<RecordingSubscription>();
    {
        auto subscriber = std::make_shared<CallbackSubscriber<int>>(nullptr);
        subscriber->onSubscribe(dropped);
        EXPECT_THROW(subscriber->onNext(1), std::bad_function_call);
    }
    EXPECT_EQ(dropped->cancels, 1);
}

using Cached = CachedValuePublisher<int, std::function<void()>>;

struct CachedFixture {
    CachedFixture() : publisher(std::make_shared<Cached>([this] { ++finishedCalls; })) {}
    std::shared_ptr<Cached> publisher;
    int finishedCalls = 0;
};

TEST(CachedValuePublisher, CachedValuesWaitForDemandAndFinishAfterTheLastOne) {
    CachedFixture fixture;
    Future<bool> done = fixture.publisher->getFuture();
    fixture.publisher->publish(1);
    fixture.publisher->publish(2);
    fixture.publisher->publish(3);
    auto subscriber = std::make_shared<RecordingSubscriber<int>>();
    fixture.publisher->subscribe(subscriber);
    subscriber->request(2);
    fixture.publisher->finish();
    EXPECT_EQ(subscriber->events, (Events{"subscribe", "next 1", "next 2"}));
    EXPECT_EQ(fixture.finishedCalls, 0);

    fixture.publisher->publish(4);  // still taken while finishing
    subscriber->request(5);
    EXPECT_EQ(subscriber->events, (Events{"subscribe", "next 1", "next 2", "next 3", "next 4", "complete"}));
    EXPECT_EQ(fixture.finishedCalls, 1);
    EXPECT_TRUE(resolvedValue(std::move(done)));

    fixture.publisher->publish(5);
    EXPECT_EQ(subscriber->events.size(), 6u);
}

TEST(CachedValuePublisher, CacheLimitKeepsTheNewestValues) {
    CachedFixture fixture;
    fixture.publisher->setMaxCached(2);
    for (int value : {1, 2, 3}) {
        fixture.publisher->publish(std::move(value));
    }
    auto subscriber = std::make_shared<RecordingSubscriber<int>>(unlimited);
    fixture.publisher->subscribe(subscriber);
    EXPECT_EQ(subscriber->events, (Events{"subscribe", "next 2", "next 3"}));
}

TEST(CachedValuePublisher, CancelStopsDeliveryAndDropsLaterValues) {
    CachedFixture fixture;
    Future<bool> done = fixture.publisher->getFuture();
    auto subscriber = std::make_shared<RecordingSubscriber<int>>(1);
    fixture.publisher->subscribe(subscriber);
    fixture.publisher->publish(1);
    fixture.publisher->publish(2);
    subscriber->cancel();
    subscriber->cancel();
    fixture.publisher->publish(3);
    subscriber->request(5);
    fixture.publisher->finish();

    EXPECT_EQ(subscriber->events, (Events{"subscribe", "next 1"}));
    EXPECT_EQ(fixture.finishedCalls, 1);
    EXPECT_FALSE(resolvedValue(std::move(done)));
    EXPECT_EQ(errorText([&] { fixture.publisher->subscribe(std::make_shared<RecordingSubscriber<int>>()); }),
              "Only one subscription allowed.");
}

TEST(CachedValuePublisher, LateSubscriberSeesHowTheStreamEnded) {
    CachedFixture failed;
    Future<bool> failedDone = failed.publisher->getFuture();
    failed.publisher->setError(std::make_exception_ptr(std::runtime_error("frame lost")));
    auto afterError = std::make_shared<RecordingSubscriber<int>>();
    failed.publisher->subscribe(afterError);
    EXPECT_EQ(afterError->events, (Events{"subscribe", "error frame lost"}));
    EXPECT_FALSE(resolvedValue(std::move(failedDone)));
    EXPECT_EQ(failed.finishedCalls, 1);

    CachedFixture finished;
    finished.publisher->finish();
    EXPECT_EQ(finished.finishedCalls, 1);
    auto afterFinish = std::make_shared<RecordingSubscriber<int>>();
    finished.publisher->subscribe(afterFinish);
    EXPECT_EQ(afterFinish->events, (Events{"subscribe", "complete"}));
}

TEST(CachedValuePublisher, ReentrantCallsFromOnNextKeepTheOrder) {
    CachedFixture fixture;
    auto subscriber = std::make_shared<RecordingSubscriber<int>>(1);
    fixture.publisher->subscribe(subscriber);
    int published = 0;
    subscriber->onItem = [&] {
        if (++published < 3) {
            fixture.publisher->publish(10 + published);
        } else {
            fixture.publisher->finish();
        }
        subscriber->request(1);
    };
    fixture.publisher->publish(10);
    EXPECT_EQ(subscriber->events, (Events{"subscribe", "next 10", "next 11", "next 12", "complete"}));
    EXPECT_EQ(fixture.finishedCalls, 1);
}

TEST(CachedValuePublisher, SubscriberExceptionPassesOutAndKeepsTheState) {
    CachedFixture fixture;
    fixture.publisher->publish(1);
    fixture.publisher->publish(2);
    auto subscriber = std::make_shared<RecordingSubscriber<int>>();
    fixture.publisher->subscribe(subscriber);
    subscriber->onItem = [] { throw std::runtime_error("write failed"); };
    EXPECT_EQ(errorText([&] { subscriber->request(2); }), "write failed");
    subscriber->onItem = nullptr;
    subscriber->request(0);  // one unit of demand is still outstanding
    EXPECT_EQ(subscriber->events, (Events{"subscribe", "next 1", "next 2"}));
}

TEST(CachedValuePublisher, DestructionCompletesAndToleratesAnEmptyCallback) {
    auto subscriber = std::make_shared<RecordingSubscriber<int>>();
    int finishedCalls = 0;
    Future<bool> done;
    {
        auto publisher = std::make_shared<Cached>([&finishedCalls] { ++finishedCalls; });
        done = publisher->getFuture();
        publisher->subscribe(subscriber);
        publisher->publish(1);
    }
    EXPECT_EQ(subscriber->events, (Events{"subscribe", "complete"}));
    EXPECT_EQ(finishedCalls, 1);
    EXPECT_TRUE(resolvedValue(std::move(done)));
    EXPECT_TRUE(subscriber->subscription.expired());

    auto silent = std::make_shared<Cached>(nullptr);
    silent->finish();
    EXPECT_TRUE(resolvedValue(silent->getFuture()));
}

// Several publishing threads; the subscriber asks for small batches from inside
// onNext and from the test thread. Every value must arrive once, each thread's
// values in the order that thread published them.
TEST(CachedValuePublisherConcurrency, EveryValueArrivesOnceInPerThreadOrder) {
    constexpr int threads = 4;
    constexpr int perThread = 1000;
    constexpr unsigned long batch = 3;

    std::mutex seenMutex;
    std::vector<std::vector<int>> seen(threads);
    std::atomic<int> received{0};
    std::shared_ptr<Cached> publisher = std::make_shared<Cached>(nullptr);
    int sinceRequest = 0;

    class BatchSubscriber : public SubscriberAPI<int> {
    public:
        std::function<void(int)> item;
        std::weak_ptr<Subscription> subscription;
        void onSubscribe(std::weak_ptr<Subscription> given) override { subscription = given; }
        void onNext(int&& value) override { item(value); }
        void onComplete() override {}
        void onError(std::exception_ptr) override {}
        Future<bool> getFuture() override { return makeReadyFuture<bool>(true); }
    };
    auto batches = std::make_shared<BatchSubscriber>();
    batches->item = [&](int value) {
        // Widens the window in which another thread may try to overtake this item.
        std::this_thread::yield();
        bool askMore = false;
        {
            std::lock_guard<std::mutex> guard(seenMutex);
            seen[value / perThread].push_back(value % perThread);
            askMore = ++sinceRequest == static_cast<int>(batch);
            if (askMore) {
                sinceRequest = 0;
            }
        }
        received.fetch_add(1);
        if (askMore) {
            batches->subscription.lock()->request(batch);
        }
    };
    publisher->subscribe(batches);
    batches->subscription.lock()->request(batch);

    std::vector<std::thread> publishers;
    for (int t = 0; t < threads; ++t) {
        publishers.emplace_back([&publisher, t] {
            for (int i = 0; i < perThread; ++i) {
                publisher->publish(t * perThread + i);
                // Lets the drain catch up, so the cache runs empty with demand left.
                std::this_thread::yield();
            }
        });
    }
    for (std::thread& thread : publishers) {
        thread.join();
    }
    // Batches may have run dry between a request and the next publish: top up
    // until everything has arrived.
    while (received.load() < threads * perThread) {
        batches->subscription.lock()->request(1);
    }
    publisher->finish();
    EXPECT_TRUE(resolvedValue(publisher->getFuture()));

    for (int t = 0; t < threads; ++t) {
        ASSERT_EQ(seen[t].size(), static_cast<size_t>(perThread)) << "thread " << t;
        for (int i = 0; i < perThread; ++i) {
            ASSERT_EQ(seen[t][i], i) << "thread " << t;
        }
    }
}

}  // namespace
}  // namespace korvane::reactive_streams
