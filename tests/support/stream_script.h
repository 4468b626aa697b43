#pragma once

// Drives a fresh stream stage (a publisher, a subscriber or both) through each script of steps
// written as "name [N|TEXT]" (N may be "max"), logging in order what its downstream sees, what it
// asks of its upstream ("up request N", "up cancel"), what its callbacks are told, how its done
// future ends ("end true", "end false" or "end <error text>") and, as "threw <text>", what a step
// threw. "destroy" drops the stage; the publisher and subscriber steps below and the test's own
// come from a table of steps.

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <limits>
#include <map>
#include <string>
#include <vector>

#include "support/recording_subscriber.h"

namespace korvane::test_support {

constexpr unsigned long unlimited = std::numeric_limits<unsigned long>::max();

inline std::string describe(const std::string& value) { return value; }
inline std::string describe(unsigned long n) { return n == unlimited ? "max" : std::to_string(n); }
inline std::string describe(int value) { return std::to_string(value); }

// The shared recorder with its items written by `describe`, built as a stream script builds its downstream.
// Threading: as RecordingSubscriber's.
template <class Item>
struct TextRecorder : RecordingSubscriber<Item> {
    TextRecorder(unsigned long initialDemand, Log* log)
        : RecordingSubscriber<Item>(initialDemand, 0, [](const Item& item) { return describe(item); }, log) {}
};

// An upstream that only records what is asked of it. Threading: the test's thread only.
struct RecordingSubscription : reactive_streams::Subscription {
    explicit RecordingSubscription(Log* log) : log(log) {}
    void request(unsigned long n) override { log->push_back("up request " + describe(n)); }
    void cancel() override { log->push_back("up cancel"); }
    Log* log;
};

// Threading: the test's thread only; the stage's callbacks run inside the steps.
template <class Stage, class Item = int, class Recorder = TextRecorder<Item>>
struct StreamScript {
    using Steps = std::map<std::string, std::function<void(StreamScript&, unsigned long n, const std::string& text)>>;
    struct Script {
        std::vector<std::string> steps;
        Log log;
    };

    static void runAll(const std::vector<Script>& scripts, const Steps& steps,
                       const std::function<std::shared_ptr<Stage>(Log&)>& make) {
        for (const Script& script : scripts) {
            SCOPED_TRACE(script.steps.front() + " ... " + script.steps.back());
            StreamScript run;
            run.stage = make(run.log);
            Future<bool> ended = run.stage->getFuture().then([&log = run.log](Future<bool>&& done) {
                log.push_back("end " + errorOf([&] { throw std::runtime_error(done.get() ? "true" : "false"); }));
                return true;
            });
            for (const std::string& step : script.steps) {
                const std::string name = step.substr(0, step.find(' '));
                const std::string text = name.size() < step.size() ? step.substr(name.size() + 1) : "";
                const unsigned long n = text == "max" ? unlimited : std::strtoul(text.c_str(), nullptr, 10);
                const std::string refused =
                    errorOf([&] { name == "destroy" ? run.stage.reset() : steps.at(name)(run, n, text); });
                if (refused != "(no exception)") {
                    run.log.push_back("threw " + refused);
                }
            }
            EXPECT_EQ(run.log, script.log);
        }
    }
    // A publisher's steps: "subscribe N" (a subscriber that requests N on subscription, the
    // current one once accepted), "request N", "cancel", and "refuse" and "accept" to make the
    // current one throw on each item from then on, or stop that. Steps in `more` come first.
    static Steps publisherSteps(Steps more = {}) {
        more.try_emplace("subscribe", [](StreamScript& run, unsigned long n, auto&) {
            auto subscriber = std::make_shared<Recorder>(n, &run.log);
            run.stage->subscribe(subscriber);
            run.downstream = subscriber;
        });
        more.try_emplace("request", [](StreamScript& run, unsigned long n, auto&) { run.downstream->request(n); });
        more.try_emplace("cancel", [](StreamScript& run, auto, auto&) { run.downstream->cancel(); });
        more.try_emplace("refuse", [](StreamScript& run, auto, auto&) {
            run.downstream->onItem = [](const Item&) { throw std::runtime_error("write failed"); };
        });
        more.try_emplace("accept", [](StreamScript& run, auto, auto&) { run.downstream->onItem = nullptr; });
        return more;
    }
    // A subscriber's steps: "upstream" (onSubscribe), "next N", "complete", "error TEXT".
    static Steps subscriberSteps(Steps more = {}) {
        more.try_emplace("upstream", [](StreamScript& run, auto, auto&) { run.stage->onSubscribe(run.upstream); });
        more.try_emplace("next", [](StreamScript& run, unsigned long n, auto&) { run.stage->onNext(int(n)); });
        more.try_emplace("complete", [](StreamScript& run, auto, auto&) { run.stage->onComplete(); });
        more.try_emplace("error", [](StreamScript& run, auto, const std::string& text) {
            run.stage->onError(std::make_exception_ptr(std::runtime_error(text)));
        });
        return more;
    }

    Log log;  // first in, last out: a stage's destructor may still record into it
    std::shared_ptr<Stage> stage;
    std::shared_ptr<RecordingSubscription> upstream = std::make_shared<RecordingSubscription>(&log);
    std::shared_ptr<Recorder> downstream;
};

}  // namespace korvane::test_support
