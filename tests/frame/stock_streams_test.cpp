#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "korvane/frame/cached_value_publisher.h"
#include "korvane/frame/callback_subscriber.h"
#include "korvane/frame/one_shot_publisher.h"
#include "korvane/frame/reducing_subscriber.h"
#include "korvane/frame/transform_processor.h"
#include "support/stream_script.h"

namespace korvane::reactive_streams {
namespace {

using test_support::errorOf;
using test_support::Log;
using test_support::RecordingSubscription;

// "true", "false" or the error text of a resolved done future.
std::string outcome(Future<bool>&& done) {
    return errorOf([&] { throw std::runtime_error(done.get() ? "true" : "false"); });
}
std::exception_ptr failure(const std::string& text) { return std::make_exception_ptr(std::runtime_error(text)); }

using Processor = TransformProcessor<int, std::string>;
using Cached = CachedValuePublisher<int, std::function<void()>>;

Future<std::string> concatenated(std::shared_ptr<PublisherAPI<std::string>> chunks, const std::string& initial) {
    return reduce<std::string, std::string>(
        std::move(chunks), [](std::string&& chunk, std::string&& sum) { return sum + chunk; }, initial);
}
std::shared_ptr<ReducingSubscriber<int, int>> makeSumming() {
    return std::make_shared<ReducingSubscriber<int, int>>(
        [](int&& item, int&& sum) { return item < 0 ? throw std::invalid_argument("bad item") : sum + item; }, 100);
}

TEST(TransformProcessor, ScriptsOfDemandItemsAndEndings) {
    using Run = test_support::StreamScript<Processor, std::string>;
    Run::runAll({
        // Demand made before there is an upstream is kept; the whole outstanding demand goes up, saturating.
        {{"subscribe 0", "request 2", "upstream", "request 5", "request 0", "next 1", "next 2", "request 0",
          "request max", "request 3", "complete", "next 3"},
         {"subscribe", "up request 2", "up request 7", "up request 7", "next #1", "next #2", "up request 5",
          "up request max", "up request max", "complete", "end true"}},
        // Items before a subscriber are lost; a failing transform leaves the stream running.
        {{"next 1", "subscribe max", "next -1", "next 2"}, {"subscribe", "threw negative", "next #2"}},
        {{"complete", "subscribe 0"}, {"end true", "subscribe", "complete"}},
        {{"error upstream broke", "subscribe 0", "subscribe 0"},
         {"end upstream broke", "subscribe", "error upstream broke", "threw Only one subscription is supported"}},
        // Cancel cancels upstream once and completes downstream; a later upstream is left running.
        {{"upstream", "subscribe 1", "cancel", "cancel", "error ignored", "upstream"},
         {"subscribe", "up request 1", "up cancel", "complete", "end false"}},
        {{"subscribe 0", "destroy"}, {"subscribe", "complete", "end true"}},
        // A downstream that throws passes it out and the lock is released by the unwinding.
        {{"subscribe max", "refuse", "next 2", "accept", "next 3"}, {"subscribe", "next #2", "threw write failed",
          "next #3"}},
    }, Run::publisherSteps(Run::subscriberSteps()), [](Log&) {
        return std::make_shared<Processor>([](int&& value) {
            return value < 0 ? throw std::invalid_argument("negative") : "#" + std::to_string(value);
        });
    });
}

TEST(CachedValuePublisher, ScriptsOfCachingDemandEndingsAndCollecting) {
    using Run = test_support::StreamScript<Cached>;
    Run::runAll({
        // A value published while finishing is still taken; the end comes after the last value.
        {{"publish 1", "publish 2", "publish 3", "subscribe 0", "request 2", "finish", "publish 4", "request 5",
          "publish 5"}, {"subscribe", "next 1", "next 2", "next 3", "next 4", "end true", "complete", "finished"}},
        {{"limit 2", "publish 1", "publish 2", "publish 3", "subscribe max"}, {"subscribe", "next 2", "next 3"}},
        {{"subscribe 1", "publish 1", "publish 2", "cancel", "cancel", "publish 3", "request 5", "finish",
          "subscribe 0"}, {"subscribe", "next 1", "end false", "finished", "threw Only one subscription allowed."}},
        {{"error frame lost", "subscribe 0"}, {"end false", "finished", "subscribe", "error frame lost"}},
        {{"finish", "subscribe 0"}, {"end true", "finished", "subscribe", "complete"}},
        {{"subscribe 0", "publish 1", "destroy"}, {"subscribe", "end true", "complete", "finished"}},
        // A throwing downstream passes it out; one unit of demand is still outstanding.
        {{"publish 1", "publish 2", "subscribe 0", "refuse", "request 2", "accept", "request 0"},
         {"subscribe", "next 1", "threw write failed", "next 2"}},
        // Publishes, a finish and requests made from inside onNext keep the order.
        {{"subscribe 1", "chain", "publish 10"}, {"subscribe", "next 10", "next 11", "next 12", "end true", "complete", "finished"}},
        // A taker instead of a subscriber: woken once a take, it gets the values in order and the end behind the
        // last of them; it stops like a cancelled subscriber.
        {{"publish 1", "collect", "publish 2", "take", "publish 3", "publish 4", "take", "take"},
         {"wake", "took 1 2", "wake", "took 3 4", "took"}},
        {{"limit 2", "collect", "publish 1", "publish 2", "publish 3", "take"}, {"wake", "took 2 3"}},
        {{"collect", "publish 1", "finish", "publish 2", "take", "publish 3", "take"},
         {"wake", "end true", "finished", "took 1 2 ended", "took"}},
        {{"collect", "finish", "take"}, {"wake", "end true", "finished", "took ended"}},
        {{"collect", "publish 1", "take", "publish 2", "error frame lost", "take"},
         {"wake", "took 1", "wake", "end false", "finished", "took 2 failed frame lost"}},
        {{"collect", "publish 1", "take", "error frame lost", "take"},
         {"wake", "took 1", "end false", "wake", "finished", "took failed frame lost"}},
        {{"error gone", "collect", "take"}, {"end false", "finished", "wake", "took failed gone"}},
        {{"collect", "publish 1", "stop", "stop", "publish 2", "take", "subscribe 0"},
         {"wake", "end false", "finished", "took", "threw Only one subscription allowed."}},
        {{"subscribe 0", "collect"}, {"subscribe", "threw Only one subscription allowed."}},
        {{"collect", "collect"}, {"threw Only one subscription allowed."}},
        {{"collect", "publish 1", "destroy"}, {"wake", "end true", "finished"}},
    }, Run::publisherSteps({
        {"publish", [](Run& run, unsigned long n, auto&) { run.stage->publish(static_cast<int>(n)); }},
        {"limit", [](Run& run, unsigned long n, auto&) { run.stage->setMaxCached(n); }},
        {"finish", [](Run& run, auto, auto&) { run.stage->finish(); }},
        {"error", [](Run& run, auto, const std::string& text) { run.stage->setError(failure(text)); }},
        {"chain", [](Run& run, auto, auto&) {
             run.downstream->onItem = [&run](int value) {
                 value < 12 ? run.stage->publish(value + 1) : run.stage->finish();
                 run.downstream->request(1);
             };
         }},
        {"collect", [](Run& run, auto, auto&) { run.stage->collect([&log = run.log] { log.push_back("wake"); }); }},
        {"stop", [](Run& run, auto, auto&) { run.stage->stopCollecting(); }},
        {"take", [](Run& run, auto, auto&) {
             common::RingQueue<int> values;
             const Cached::Ending ending = run.stage->takeAll(values);
             std::string text = "took";
             for (; !values.empty(); values.pop_front()) {
                 text += " " + std::to_string(values.front());
             }
             const std::string end = ending.error ? " failed " + errorOf([&] { std::rethrow_exception(ending.error); }) : " ended";
             run.log.push_back(ending.ended ? text + end : text);
         }},
    }), [](Log& log) { return std::make_shared<Cached>([&log] { log.push_back("finished"); }); });
}

// Demand given inside onSubscribe is every host request body read by the long-poll transport.
TEST(OneShotPublisher, DeliversItsValueAndCompletesOnTheFirstRequestOnly) {
    using Run = test_support::StreamScript<OneShotPublisher<std::string>, std::string>;
    Run::runAll({
        {{"subscribe 0", "request 1", "request 1", "subscribe 0"},
         {"end true", "subscribe", "next body", "complete", "threw Only one subscription allowed."}},
        {{"subscribe 0", "cancel", "request 5"}, {"end true", "subscribe"}},
    }, Run::publisherSteps(), [](Log&) { return std::make_shared<OneShotPublisher<std::string>>("body"); });
}

TEST(SubscribersWithoutDownstream, ScriptsOfItemsCancelsAndEndings) {
    using Reducing = test_support::StreamScript<ReducingSubscriber<int, int>>;
    // A reducer that throws cancels the reduction.
    Reducing::runAll({
        {{"upstream", "next 1", "next 2", "next -1", "next 4", "complete"}, {"up request max", "up cancel", "end false"}},
        {{"upstream", "destroy"}, {"up request max", "up cancel", "end false"}},
        {{"upstream", "next 1", "complete", "cancel"}, {"up request max", "end true"}},
        {{"error stored"}, {"end stored"}},
    }, Reducing::subscriberSteps({{"cancel", [](Reducing& run, auto, auto&) { run.stage->cancel(); }}}),
       [](Log&) { return makeSumming(); });

    using Callback = test_support::StreamScript<CallbackSubscriber<int>>;
    Callback::runAll({
        {{"upstream", "next 1", "next 2", "complete", "next 3", "cancel"}, {"up request max", "got 1", "got 2", "end true"}},
        // Nothing is delivered after a cancel, and a later upstream is not asked for anything.
        {{"upstream", "cancel", "next 1", "upstream"}, {"up request max", "end false", "up cancel"}},
        {{"error socket closed", "next 1"}, {"end socket closed"}},
        {{"upstream", "destroy"}, {"up request max", "end false", "up cancel"}},
    }, Callback::subscriberSteps({{"cancel", [](Callback& run, auto, auto&) { run.stage->cancel(); }}}), [](Log& log) {
        return std::make_shared<CallbackSubscriber<int>>([&log](int&& item) {
            log.push_back("got " + std::to_string(item));
        });
    });
}

TEST(ReducingSubscriber, ReduceFoldsStreamsThatEndInsideSubscribeOrLaterAndPassesTheirError) {
    bool ranInsideThen = false;
    Future<std::string> seen = concatenated(std::make_shared<OneShotPublisher<std::string>>("whole"), ">")
                                   .then([&](Future<std::string>&& f) { return ranInsideThen = true, f.get(); });
    EXPECT_TRUE(ranInsideThen) << "a stream that ended inside subscribe leaves the result already resolved";
    EXPECT_EQ(seen.get(), ">whole");
    EXPECT_EQ(concatenated(nullptr, "initial").get(), "initial");
    auto failing = std::make_shared<CachedValuePublisher<std::string, std::function<void()>>>(nullptr);
    Future<std::string> failed = concatenated(failing, "");
    failing->setError(failure("body cut off"));
    EXPECT_EQ(errorOf([&] { failed.get(); }), "body cut off");

    auto completed = makeSumming();
    completed->onComplete();
    EXPECT_EQ(outcome(completed->getFuture()), "true") << "a future asked for after the end has the outcome";
    std::weak_ptr<Subscription> gone = std::make_shared<RecordingSubscription>(nullptr);
    EXPECT_EQ(errorOf([&] { makeSumming()->onSubscribe(gone); }), "Subscription went away!");
}

// Several publishing threads; the subscriber asks for small batches from inside onNext and
// from the test thread. Every value arrives once, each thread's in the order it published them,
// and the finish runs with no callback.
TEST(CachedValuePublisherConcurrency, EveryValueArrivesOnceInPerThreadOrder) {
    constexpr int threads = 4, perThread = 1000;
    constexpr unsigned long batch = 3;
    std::vector<int> next(threads, 0);  // written under the publisher's one-at-a-time delivery
    std::atomic<int> received{0}, outOfOrder{0};
    auto publisher = std::make_shared<Cached>(nullptr);
    auto batches = std::make_shared<test_support::TextRecorder<int>>(batch, nullptr);
    batches->onItem = [&](int value) {
        std::this_thread::yield();  // widens the window in which another thread may overtake this item
        outOfOrder += value % perThread != next[value / perThread]++;
        if (received.fetch_add(1) % batch == batch - 1) {
            batches->request(batch);
        }
    };
    publisher->subscribe(batches);
    test_support::onThreads(threads, [&publisher](int t) {
        for (int i = 0; i < perThread; ++i) {
            publisher->publish(t * perThread + i);
            std::this_thread::yield();  // lets the drain catch up, so the cache runs empty with demand left
        }
    });
    // Batches may have run dry between a request and the next publish: top up until everything has arrived.
    while (received.load() < threads * perThread) {
        batches->request(1);
    }
    publisher->finish();
    EXPECT_EQ(outcome(publisher->getFuture()), "true");
    EXPECT_EQ(outOfOrder, 0);
    EXPECT_EQ(next, std::vector<int>(threads, perThread));
}

}  // namespace
}  // namespace korvane::reactive_streams
