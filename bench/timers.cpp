// Cost of arming and releasing timers with a large population armed, and the
// lateness of a short delay on the threaded backend under load.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "korvane/frame/manual_timer_backend.h"
#include "korvane/host/threaded_timer_backend.h"

namespace {

using std::chrono::milliseconds;
using korvane::common::TimerHandle;

// Timers spread over ten minutes, so that none falls due while measuring.
std::vector<TimerHandle> armPopulation(korvane::common::TimerBackend& backend, int count) {
    std::vector<TimerHandle> handles;
    handles.reserve(count);
    for (int index = 0; index < count; ++index) {
        handles.push_back(backend.schedule([](long long) {}, milliseconds(60000 + (index * 7919) % 540000),
                                           milliseconds(0)));
    }
    return handles;
}

// One arm and one release per iteration; the released timer sits mid-heap.
void BM_ArmAndCancelWithManyArmed(benchmark::State& state) {
    korvane::common::ManualTimerBackend backend;
    auto population = armPopulation(backend, static_cast<int>(state.range(0)));
    long long iteration = 0;
    for (auto _ : state) {
        auto handle = backend.schedule([](long long) {}, milliseconds(60000 + (iteration++ * 7919) % 540000),
                                       milliseconds(0));
        benchmark::DoNotOptimize(handle);
    }
    state.counters["armed"] = static_cast<double>(backend.armedCount());
}
BENCHMARK(BM_ArmAndCancelWithManyArmed)->Arg(100000);

// Arming alone: the handles are kept, so the heap grows by one per iteration.
void BM_ArmWithManyArmed(benchmark::State& state) {
    korvane::common::ManualTimerBackend backend;
    auto population = armPopulation(backend, static_cast<int>(state.range(0)));
    std::vector<TimerHandle> armed;
    armed.reserve(static_cast<std::size_t>(state.max_iterations));
    long long iteration = 0;
    for (auto _ : state) {
        armed.push_back(backend.schedule([](long long) {}, milliseconds(60000 + (iteration++ * 7919) % 540000),
                                         milliseconds(0)));
    }
}
BENCHMARK(BM_ArmWithManyArmed)->Arg(100000)->Iterations(200000);

// Releasing alone: each iteration cancels one of the armed population.
void BM_CancelWithManyArmed(benchmark::State& state) {
    korvane::common::ManualTimerBackend backend;
    const int count = static_cast<int>(state.range(0));
    auto population = armPopulation(backend, count);
    std::size_t next = 0;
    for (auto _ : state) {
        if (next == population.size()) {
            state.PauseTiming();
            population = armPopulation(backend, count);
            next = 0;
            state.ResumeTiming();
        }
        population[next++] = nullptr;
    }
}
BENCHMARK(BM_CancelWithManyArmed)->Arg(100000);

// Arms a 5 ms shortMsDelay with many longer timers armed on the running timer
// thread, and reports how late it fired.
void BM_ShortDelayLatenessWithManyArmed(benchmark::State& state) {
    korvane::host::ThreadedTimerBackend backend;
    backend.start();
    auto population = armPopulation(backend, static_cast<int>(state.range(0)));
    std::vector<double> lateness;
    for (auto _ : state) {
        std::mutex mutex;
        std::condition_variable condition;
        bool fired = false;
        std::chrono::steady_clock::time_point firedAt;
        const auto armedAt = std::chrono::steady_clock::now();
        auto handle = backend.schedule(
            [&](long long) {
                std::lock_guard<std::mutex> guard(mutex);
                firedAt = std::chrono::steady_clock::now();
                fired = true;
                condition.notify_one();
            },
            milliseconds(5), milliseconds(0));
        std::unique_lock<std::mutex> lock(mutex);
        condition.wait(lock, [&] { return fired; });
        const auto late = firedAt - (armedAt + milliseconds(5));
        lateness.push_back(std::chrono::duration<double, std::micro>(late).count());
    }
    std::sort(lateness.begin(), lateness.end());
    state.counters["lateness_median_us"] = lateness[lateness.size() / 2];
    state.counters["lateness_max_us"] = lateness.back();
    backend.stop();
}
BENCHMARK(BM_ShortDelayLatenessWithManyArmed)->Arg(10000)->Iterations(200)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
