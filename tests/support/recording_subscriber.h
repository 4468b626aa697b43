#pragma once

// One recording subscriber for the tests of every area. It asks for `initialDemand` items on
// subscription and `refill` more after each item, keeps every item, and logs each call as a
// line ("subscribe", "next <text>", "complete", "error <text>") in its own log or a shared
// one, an item's text given by `describe` (empty without it).
// Threading: any thread may deliver or read; one mutex guards the record (a shared log is the
// test's to guard); onItem, request and cancel run with it released.

#include <algorithm>
#include <chrono>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "korvane/frame/reactive_streams.h"
#include "support/test_helpers.h"

namespace korvane::test_support {

using Log = std::vector<std::string>;

template <class T>
class RecordingSubscriber : public reactive_streams::SubscriberAPI<T> {
public:
    using Describe = std::function<std::string(const T&)>;
    explicit RecordingSubscriber(unsigned long initialDemand = 0, unsigned long refill = 0,
                                 Describe describe = nullptr, Log* shared = nullptr)
        : initialDemand(initialDemand), refill(refill), describe(std::move(describe)), log(shared ? shared : &own) {}

    void onSubscribe(std::weak_ptr<reactive_streams::Subscription> given) override {
        lock(), upstream = given, log->push_back("subscribe");
        if (initialDemand != 0) {
            request(initialDemand);
        }
    }
    void onNext(T&& value) override {
        const std::string text = describe ? describe(value) : "";
        const T* kept = (lock(), texts.push_back(text), log->push_back("next " + text),
                         &items.emplace_back(std::move(value)));  // a deque keeps it in place as more arrive
        if (onItem) {
            onItem(*kept);
        }
        if (refill != 0) {
            request(refill);
        }
    }
    void onComplete() override { lock(), log->push_back("complete"); }
    void onError(std::exception_ptr error) override {
        lock(), log->push_back("error " + errorOf([&] { std::rethrow_exception(error); }));
    }
    Future<bool> getFuture() override { return makeReadyFuture(true); }

    void request(unsigned long n) {
        if (auto held = source()) {
            held->request(n);
        }
    }
    void cancel() {
        if (auto held = source()) {
            held->cancel();
        }
    }

    Log events() { return lock(), *log; }
    Log seen() { return lock(), texts; }  // the items' texts, in arrival order
    // How many lines of the log start with `event`, as "subscribe", "complete" or "error".
    long count(const std::string& event) {
        return lock(), std::count_if(log->begin(), log->end(), [&](auto& line) { return line.rfind(event, 0) == 0; });
    }
    // Runs `read` on the items under the lock and returns what it returns.
    template <class Read>
    auto read(Read&& read) {
        return lock(), read(std::as_const(items));
    }
    // Waits until `done` holds of this recorder, at most `limit`; true if it does.
    bool waitFor(const std::function<bool(RecordingSubscriber&)>& done, std::chrono::milliseconds limit) {
        return eventually([&] { return done(*this); }, limit);
    }

    std::function<void(const T&)> onItem;

private:
    // The guard holds `mutex` to the end of the full expression: `lock(), expr` runs expr under it.
    std::unique_lock<std::mutex> lock() { return std::unique_lock<std::mutex>(mutex); }
    std::shared_ptr<reactive_streams::Subscription> source() { return lock(), upstream.lock(); }

    std::mutex mutex;
    const unsigned long initialDemand, refill;
    const Describe describe;
    Log own;
    Log* log;
    std::weak_ptr<reactive_streams::Subscription> upstream;
    std::deque<T> items;
    Log texts;
};

}  // namespace korvane::test_support
