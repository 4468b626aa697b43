#pragma once

// Helpers shared by the benchmarks.

#include <benchmark/benchmark.h>

#include <exception>
#include <limits>
#include <memory>

#include "korvane/frame/future.h"
#include "korvane/frame/reactive_streams.h"

namespace korvane::bench {

// Takes everything at once and keeps nothing, counting the items.
template <class T>
class Sink : public reactive_streams::SubscriberAPI<T> {
public:
    void onSubscribe(std::weak_ptr<reactive_streams::Subscription> subscription) override {
        if (auto source = subscription.lock()) {
            source->request(std::numeric_limits<unsigned long>::max());
        }
    }
    void onNext(T&& value) override {
        ++count;
        benchmark::DoNotOptimize(value);
    }
    void onError(std::exception_ptr) override {}
    void onComplete() override {}
    Future<bool> getFuture() override { return makeReadyFuture(true); }

    unsigned long count = 0;
};

}  // namespace korvane::bench
