#include "korvane/routing/bayeux_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <thread>

#include "korvane/codec/messages.h"
#include "korvane/frame/logger.h"
#include "support/stream_script.h"

namespace korvane::bayeux {
namespace {

using reactive_streams::Subscription;
using test_support::Log;

std::unique_ptr<Message> message(const std::string& channel) { return std::make_unique<PublishRequest>(channel); }

// The shared recorder, with a message's channel for its text, that also keeps its subscription
// weakly to see it released. Threading: as RecordingSubscriber's; `subscription` is set in
// onSubscribe, before another thread is given the recorder.
struct Recorder : test_support::RecordingSubscriber<std::unique_ptr<Message>> {
    Recorder(unsigned long initialDemand, Log* log)
        : RecordingSubscriber(initialDemand, 0, [](auto& item) { return dynamic_cast<PublishRequest&>(*item).channel; },
                              log) {}
    void onSubscribe(std::weak_ptr<Subscription> given) override {
        subscription = given;
        RecordingSubscriber::onSubscribe(given);
    }
    std::weak_ptr<Subscription> subscription;
};

// The queue's steps besides a publisher's: push CHANNEL, done, whenEmpty, fail TEXT, size (as
// "size N"), late (a push into an ended queue: "kept" if the caller keeps its message), expired
// (whether the current subscription is gone), and refill and cancelInside (the current subscriber
// asks for one more, or cancels, inside each onNext; an onNext inside another logs "reentered").
using Run = test_support::StreamScript<BayeuxQueue, std::unique_ptr<Message>, Recorder>;

Run::Steps::mapped_type insideEachItem(void (*act)(Recorder&)) {
    return [act](Run& run, auto, auto&) {
        Recorder& subscriber = *run.downstream;
        subscriber.onItem = [&subscriber, act, &log = run.log, inside = false](auto&) mutable {
            if (std::exchange(inside, true)) {
                log.push_back("reentered");
            }
            act(subscriber), inside = false;
        };
    };
}

const Run::Steps queueSteps = Run::publisherSteps({
    {"push", [](Run& run, auto, auto& channel) { run.stage->setValue(message(channel)); }},
    {"done", [](Run& run, auto, auto&) { run.stage->done(); }},
    {"whenEmpty", [](Run& run, auto, auto&) { run.stage->doneWhenEmpty(); }},
    {"fail", [](Run& run, auto, auto& text) { run.stage->setError(std::make_exception_ptr(std::runtime_error(text))); }},
    {"size", [](Run& run, auto, auto&) { run.log.push_back("size " + std::to_string(run.stage->bufferSize())); }},
    {"late", [](Run& run, auto, auto&) {
         auto late = message("/late");
         run.stage->setValue(std::move(late));
         run.log.push_back(late ? "kept" : "taken");
     }},
    {"expired", [](Run& run, auto, auto&) { run.log.push_back(run.downstream->subscription.expired() ? "expired" : "alive"); }},
    {"refill", insideEachItem([](Recorder& subscriber) { subscriber.request(1); })},
    {"cancelInside", insideEachItem([](Recorder& subscriber) { subscriber.cancel(); })},
});

TEST(BayeuxQueueTest, ScriptsOfDemandEndingsAndSubscribers) {
    Run::runAll({
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
        {{"subscribe 2", "refuse", "push /lost", "accept", "push /2", "push /3", "size", "whenEmpty",
          "request 1"},
         {"subscribe", "next /lost", "next /2", "size 1", "next /3", "complete", "end true"}},
        // Destruction completes an open queue and releases the subscription.
        {{"subscribe 1", "push /delivered", "push /undelivered", "destroy", "expired"},
         {"subscribe", "next /delivered", "complete", "end true", "expired"}},
    }, queueSteps, [](Log&) { return std::make_shared<BayeuxQueue>("script"); });
}

TEST(BayeuxQueueTest, SubscriptionWithoutItsQueueRefusesLoudlyWithATraceOnStandardError) {
    common::installStderrLogSink();
    auto queue = std::make_shared<BayeuxQueue>("gone");
    const auto subscriber = std::make_shared<Recorder>(0, nullptr);
    queue->subscribe(subscriber);
    const std::shared_ptr<Subscription> kept = subscriber->subscription.lock();
    queue.reset();
    testing::internal::CaptureStderr();
    EXPECT_EQ(test_support::errorOf<std::runtime_error>([&] { kept->request(1); }), "No publisher, can not request!");
    EXPECT_EQ(test_support::errorOf<std::runtime_error>([&] { kept->cancel(); }), "No publisher, can not cancel!");
    const std::string trace = testing::internal::GetCapturedStderr();
    EXPECT_NE(trace.find("Cancelled with no publisher"), std::string::npos) << trace;
    EXPECT_NE(trace.find("korvane_routing_tests"), std::string::npos) << "a stack trace names the frames";
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
        const auto subscriber = std::make_shared<Recorder>(0, nullptr);
        std::atomic<long> received{0}, overlaps{0};
        std::atomic<bool> inside{false};
        subscriber->onItem = [&](auto&) {
            overlaps += inside.exchange(true);
            ++received, inside = false;
        };
        queue->subscribe(subscriber);
        std::vector<std::thread> threads;
        threads.emplace_back([&, subscription = subscriber->subscription.lock()] {  // the requester
            for (long requested = 0; subscriber->count("complete") == 0; std::this_thread::yield()) {
                if (requested - received.load() < batch) {
                    requested += batch;
                    subscription->request(batch);
                }
            }
        });
        for (int p = 0; p < producerCount; ++p) {
            threads.emplace_back([&queue, p] {
                for (int i = 0; i < messagesEach; ++i) {
                    queue->setValue(message("/" + std::to_string(p) + "/" + std::to_string(i)));
                }
            });
        }
        const int ending = round % 3;
        threads.emplace_back([&queue, ending] { ending == 1 ? queue->doneWhenEmpty() : ending == 2 ? queue->done() : void(); });
        std::for_each(threads.begin() + 1, threads.end(), [](std::thread& thread) { thread.join(); });
        queue->doneWhenEmpty();
        threads.front().join();
        ASSERT_TRUE(end.get());
        ASSERT_EQ(subscriber->count("complete"), 1);
        ASSERT_EQ(overlaps, 0);
        std::vector<int> next(producerCount, 0);
        for (const std::string& channel : subscriber->seen()) {
            ASSERT_EQ(channel.substr(3), std::to_string(next[channel[1] - '0']++)) << "pushed order, round " << round;
        }
        ASSERT_TRUE(ending != 0 || next == std::vector<int>(producerCount, messagesEach)) << "round " << round;
    }
}

}  // namespace
}  // namespace korvane::bayeux
