#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "korvane/frame/future.h"
#include "support/test_helpers.h"

namespace korvane {
namespace {

using State = detail::SharedFutureState<int>;
using detail::FutureStatus;

const std::string notValid = "Future state isn't valid!";
const std::string thenRefused = "Future already has returned it's value or has an associated continuation.";
const std::string getRefused = "Future already returned it's value or has an associated continuation.";
const std::string promiseDied = "Promise destroyed before it provided a value.";

using korvane::test_support::errorOf;

int identity(Future<int>&& f) { return f.get(); }

TEST(Future, MisuseIsRefusedWithItsOwnText) {
    auto resolved = std::make_shared<State>();
    resolved->setValue(4);
    Future<int> second(resolved);
    EXPECT_EQ(Future<int>(resolved).get(), 4);
    const std::pair<std::function<void()>, std::string> cases[] = {
        {[] { auto f = makeReadyFuture(1); f.then(identity); f.then(identity); }, notValid},
        {[] { auto f = makeReadyFuture(1); f.get(); f.get(); }, getRefused},
        {[] { auto f = makeReadyFuture(1); f.get(); f.then(identity); }, thenRefused},
        {[] { auto f = makeReadyFuture(1); f.then(identity); f.get(); }, notValid},
        {[] { auto f = makeReadyFuture(1); Future<int> taker(std::move(f)); f.get(); }, notValid},
        // A second handle on a state whose value a continuation claimed.
        {[] { auto s = std::make_shared<State>(); Future<int>(s).then(identity); Future<int>(s).get(); }, getRefused},
        {[] { auto s = std::make_shared<State>(); Future<int>(s).then(identity); Future<int>(s).then(identity); },
         thenRefused},
        {[&] { second.then(identity); }, thenRefused},
        {[] { Promise<int> p; p.getFuture(); p.getFuture(); }, "Promise already returned a future."},
        {[] { Promise<int> p; p.setValue(1); p.setValue(2); }, "Promise already resolved."},
        {[] { Promise<int> p; p.setValue(1); p.setError(std::make_exception_ptr(std::logic_error("late"))); },
         "Promise already resolved."},
        {[] { Promise<int> p; Promise<int> taker(std::move(p)); p.setValue(1); }, "Promise state isn't valid!"},
        {[] { Promise<int> p; Promise<int> taker(std::move(p)); p.getFuture(); }, "Promise state isn't valid!"},
        {[] { auto s = std::make_shared<State>(); s->status = FutureStatus::Cancelled; Future<int>(s).get(); },
         "Future has been cancelled."},
        {[] { auto s = std::make_shared<State>(); s->status = static_cast<FutureStatus>(7); Future<int>(s).get(); },
         "Invalid Future state reached."},
        {[] { Future<int> f; { Promise<int> p; f = p.getFuture(); } f.get(); }, promiseDied},
    };
    for (const auto& [action, expected] : cases) {
        EXPECT_EQ(errorOf<std::runtime_error>(action), expected);
    }
    EXPECT_FALSE(second.isValid()) << "a refused then still spends its handle";
}

// The continuation runs inside the call, and so on the thread, that completes the pair.
TEST(Future, ContinuationRunsInsideWhicheverCallCompletesThePairAndItsGetReturnsAtOnce) {
    Promise<int> resolvedFirst, attachedFirst, unread;
    int runs = 0;
    auto doubled = [&runs](Future<int>&& f) { return ++runs, std::to_string(f.get() * 2); };
    resolvedFirst.setValue(20);
    Future<std::string> early = resolvedFirst.getFuture().then(doubled);
    EXPECT_EQ(runs, 1);
    Future<std::string> late = attachedFirst.getFuture().then(doubled);
    EXPECT_EQ(runs, 1);
    attachedFirst.setValue(7);
    EXPECT_EQ(runs, 2);
    EXPECT_EQ(early.get() + " " + late.get(), "40 14");
    // The fired continuation cleared the flags, so the promise hands out a second
    // future; its value was claimed by the continuation's get.
    EXPECT_EQ(errorOf([&] { attachedFirst.getFuture().get(); }), getRefused);
    Future<bool> ignored = unread.getFuture().then([](Future<int>&&) { return true; });
    unread.setValue(6);
    EXPECT_EQ(unread.getFuture().get(), 6);
}

TEST(Future, ErrorsTravelDownChainsOfThenAndThroughUnwrap) {
    Promise<int> source, second, once, twice;
    int stagesRun = 0;
    auto addOne = [&stagesRun](Future<int>&& f) { return ++stagesRun, f.get() + 1; };
    Future<int> end = source.getFuture().then(addOne).then(addOne).then(addOne);
    Future<int> failedMidway =
        second.getFuture().then([](Future<int>&&) -> int { throw std::logic_error("stage two"); }).then(addOne);
    source.setError(std::make_exception_ptr(std::out_of_range("source failed")));
    second.setValue(1);
    EXPECT_EQ(stagesRun, 4);
    EXPECT_EQ(errorOf<std::out_of_range>([&] { end.get(); }), "source failed");
    EXPECT_EQ(errorOf<std::logic_error>([&] { failedMidway.get(); }), "stage two");

    // A stored exception_ptr is unwrapped one level.
    const std::exception_ptr nested = std::make_exception_ptr(std::invalid_argument("nested"));
    once.setError(std::make_exception_ptr(nested));
    EXPECT_EQ(errorOf<std::invalid_argument>([&] { once.getFuture().get(); }), "nested");
    twice.setError(std::make_exception_ptr(std::make_exception_ptr(nested)));
    EXPECT_THROW(twice.getFuture().get(), std::exception_ptr);

    // Unwrap passes the errors of both levels; its flattening carries every long-poll reply.
    Promise<Future<int>> failingOuter;
    Future<int> outerFailed = unwrap(failingOuter.getFuture()), innerDied;
    failingOuter.setError(std::make_exception_ptr(std::runtime_error("outer failed")));
    {
        Promise<int> dying;
        innerDied = unwrap(makeReadyFuture(dying.getFuture()));
    }
    EXPECT_EQ(errorOf([&] { outerFailed.get(); }), "outer failed");
    EXPECT_EQ(errorOf([&] { innerDied.get(); }), promiseDied);

    // A ready outer future hands over its inner one: resolved now, resolved later, or spent.
    Promise<int> later;
    Future<int> resolvedLater = unwrap(makeReadyFuture(later.getFuture()));
    later.setValue(7);
    EXPECT_EQ(resolvedLater.get(), 7);
    EXPECT_EQ(unwrap(makeReadyFuture(makeReadyFuture(5))).get(), 5);
    EXPECT_EQ(errorOf([] { unwrap(makeReadyFuture(Future<int>())).get(); }), "Future state isn't valid!");
}

// A blocked get wakes when its promise dies or resolves; a then racing the resolving setValue
// runs its continuation exactly once.
TEST(FutureConcurrency, BlockedGetsWakeAndRacingThenAndSetValueRunTheContinuationOnce) {
    const std::pair<std::function<void(std::unique_ptr<Promise<int>>&)>, std::string> endings[] = {
        {[](auto& promise) { promise.reset(); }, promiseDied}, {[](auto& promise) { promise->setValue(99); }, "99"}};
    for (const auto& [end, expected] : endings) {
        auto promise = std::make_unique<Promise<int>>();
        Future<int> future = promise->getFuture();
        std::promise<void> aboutToWait;
        auto waiter = std::async(std::launch::async, [&] {
            aboutToWait.set_value();
            return errorOf([&] { throw std::runtime_error(std::to_string(future.get())); });
        });
        aboutToWait.get_future().wait();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        end(promise);
        EXPECT_EQ(waiter.get(), expected);
    }
    for (int round = 0; round < 200; ++round) {
        Promise<int> racing;
        std::atomic<int> runs{0};
        std::thread resolver([&racing, round] { racing.setValue(int(round)); });
        Future<int> result = racing.getFuture().then([&runs](Future<int>&& f) { return runs.fetch_add(1), f.get(); });
        resolver.join();
        ASSERT_EQ(result.get(), round);
        ASSERT_EQ(runs.load(), 1);
    }
}

}  // namespace
}  // namespace korvane
