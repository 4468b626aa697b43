// Costs of the frame's hot paths: a promise resolving into a continuation, and a
// cached publisher handing values to its subscriber.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>

#include "korvane/frame/cached_value_publisher.h"
#include "korvane/frame/future.h"

namespace {

using korvane::Future;
using korvane::Promise;
using korvane::reactive_streams::CachedValuePublisher;
using korvane::reactive_streams::SubscriberAPI;
using korvane::reactive_streams::Subscription;

int readValue(Future<int>&& future) { return future.get(); }

void BM_ThenThenSetValue(benchmark::State& state) {
    for (auto _ : state) {
        Promise<int> promise;
        Future<int> result = promise.getFuture().then(readValue);
        promise.setValue(1);
        benchmark::DoNotOptimize(result.get());
    }
}
BENCHMARK(BM_ThenThenSetValue);

void BM_SetValueThenThen(benchmark::State& state) {
    for (auto _ : state) {
        Promise<int> promise;
        promise.setValue(1);
        Future<int> result = promise.getFuture().then(readValue);
        benchmark::DoNotOptimize(result.get());
    }
}
BENCHMARK(BM_SetValueThenThen);

// Counts what arrives; requests nothing by itself.
class CountingSubscriber : public SubscriberAPI<std::uint64_t> {
public:
    void onSubscribe(std::weak_ptr<Subscription> given) override { subscription = given; }
    void onNext(std::uint64_t&& value) override { total += value; }
    void onComplete() override {}
    void onError(std::exception_ptr) override {}
    Future<bool> getFuture() override { return korvane::makeReadyFuture<bool>(true); }

    std::weak_ptr<Subscription> subscription;
    std::uint64_t total = 0;
};

using Publisher = CachedValuePublisher<std::uint64_t, std::function<void()>>;

// A subscriber with unlimited demand: every publish is a direct hand-over.
void BM_CachedPublishToReadySubscriber(benchmark::State& state) {
    auto publisher = std::make_shared<Publisher>(nullptr);
    auto subscriber = std::make_shared<CountingSubscriber>();
    publisher->subscribe(subscriber);
    subscriber->subscription.lock()->request(~0UL);
    std::uint64_t value = 0;
    for (auto _ : state) {
        publisher->publish(value++);
    }
    benchmark::DoNotOptimize(subscriber->total);
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CachedPublishToReadySubscriber);

// Values wait in the cache, then one request drains the batch.
void BM_CachedPublishIntoCacheThenDrain(benchmark::State& state) {
    const std::int64_t batch = state.range(0);
    auto publisher = std::make_shared<Publisher>(nullptr);
    auto subscriber = std::make_shared<CountingSubscriber>();
    publisher->subscribe(subscriber);
    std::shared_ptr<Subscription> subscription = subscriber->subscription.lock();
    for (auto _ : state) {
        for (std::int64_t i = 0; i < batch; ++i) {
            publisher->publish(static_cast<std::uint64_t>(i));
        }
        subscription->request(static_cast<unsigned long>(batch));
    }
    benchmark::DoNotOptimize(subscriber->total);
    state.SetItemsProcessed(state.iterations() * batch);
}
BENCHMARK(BM_CachedPublishIntoCacheThenDrain)->Arg(1)->Arg(64);

}  // namespace

BENCHMARK_MAIN();
