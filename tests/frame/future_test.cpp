#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "korvane/frame/future.h"

namespace korvane {
namespace {

using State = detail::SharedFutureState<int>;
using detail::FutureStatus;

std::string errorText(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "(no exception)";
}

// Counts live instances, so a test can see when a stored value is destroyed.
struct Tracked {
    explicit Tracked(int* liveCount) : live(liveCount) { ++*live; }
    Tracked(Tracked&& other) noexcept : live(other.live) { ++*live; }
    ~Tracked() { --*live; }
    int* live;
};

std::shared_ptr<State> resolvedState(int value) {
    auto state = std::make_shared<State>();
    state->setValue(std::move(value));
    return state;
}

TEST(Future, MisuseIsRefusedWithItsOwnText) {
    const std::string notValid = "Future state isn't valid!";
    const std::string thenRefused = "Future already has returned it's value or has an associated continuation.";
    const std::string getRefused = "Future already returned it's value or has an associated continuation.";
    auto identity = [](Future<int>&& f) { return f.get(); };

    struct Case {
        const char* name;
        std::function<void()> action;
        std::string expected;
    };
    std::vector<Case> cases = {
        {"then twice",
         [&] {
             Future<int> future = makeReadyFuture(1);
             future.then(identity);
             future.then(identity);
         },
         notValid},
        {"get twice",
         [&] {
             Future<int> future = makeReadyFuture(1);
             future.get();
             future.get();
         },
         getRefused},
        {"get after then",
         [&] {
             Future<int> future = makeReadyFuture(1);
             future.then(identity);
             future.get();
         },
         notValid},
        {"get on a moved-from future",
         [&] {
             Future<int> future = makeReadyFuture(1);
             Future<int> taker(std::move(future));
             future.get();
         },
         notValid},
        {"get while a continuation is attached",
         [&] {
             auto state = std::make_shared<State>();
             Future<int>(state).then(identity);
             Future<int>(state).get();
         },
         getRefused},
        {"then while a continuation is attached",
         [&] {
             auto state = std::make_shared<State>();
             Future<int>(state).then(identity);
             Future<int>(state).then(identity);
         },
         thenRefused},
        {"getFuture twice",
         [] {
             Promise<int> promise;
             promise.getFuture();
             promise.getFuture();
         },
         "Promise already returned a future."},
        {"setValue twice",
         [] {
             Promise<int> promise;
             promise.setValue(1);
             promise.setValue(2);
         },
         "Promise already resolved."},
        {"setError after setValue",
         [] {
             Promise<int> promise;
             promise.setValue(1);
             promise.setError(std::make_exception_ptr(std::logic_error("late")));
         },
         "Promise already resolved."},
        {"moved-from promise",
         [] {
             Promise<int> promise;
             Promise<int> taker(std::move(promise));
             promise.setValue(1);
         },
         "Promise state isn't valid!"},
        {"moved-from promise getFuture",
         [] {
             Promise<int> promise;
             Promise<int> taker(std::move(promise));
             promise.getFuture();
         },
         "Promise state isn't valid!"},
        {"get on a cancelled state",
         [] {
             auto state = std::make_shared<State>();
             state->status = FutureStatus::Cancelled;
             Future<int>(state).get();
         },
         "Future has been cancelled."},
        {"get on an out-of-range state",
         [] {
             auto state = std::make_shared<State>();
             state->status = static_cast<FutureStatus>(7);
             Future<int>(state).get();
         },
         "Invalid Future state reached."},
        {"promise dies unresolved",
         [] {
             Future<int> future;
             {
                 Promise<int> promise;
                 future = promise.getFuture();
             }
             future.get();
         },
         "Promise destroyed before it provided a value."},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(errorText(c.action), c.expected) << c.name;
    }
}

TEST(Future, ThenOnAClaimedStateSpendsTheNewHandle) {
    auto state = resolvedState(4);
    EXPECT_EQ(Future<int>(state).get(), 4);
    Future<int> second(state);
    EXPECT_EQ(errorText([&] { second.then([](Future<int>&& f) { return f.get(); }); }),
              "Future already has returned it's value or has an associated continuation.");
    EXPECT_FALSE(second.isValid());
}

TEST(Future, ContinuationOnAResolvedFutureRunsInsideThen) {
    Promise<int> promise;
    promise.setValue(20);
    bool ran = false;
    Future<int> doubled = promise.getFuture().then([&ran](Future<int>&& f) {
        ran = true;
        return f.get() * 2;
    });
    EXPECT_TRUE(ran);
    EXPECT_EQ(doubled.get(), 40);
}

TEST(Future, ContinuationAttachedFirstRunsInsideSetValue) {
    Promise<int> promise;
    bool ran = false;
    Future<std::string> text = promise.getFuture().then([&ran](Future<int>&& f) {
        ran = true;
        return std::to_string(f.get());
    });
    EXPECT_FALSE(ran);
    promise.setValue(7);
    EXPECT_TRUE(ran);
    EXPECT_EQ(text.get(), "7");
}

TEST(Future, GetInsideAContinuationReturnsAtOnceAndStateAcceptsAnotherFuture) {
    Promise<int> promise;
    int seen = 0;
    auto result = promise.getFuture().then([&seen](Future<int>&& f) {
        seen = f.get();
        return true;
    });
    promise.setValue(5);
    EXPECT_EQ(seen, 5);
    EXPECT_TRUE(result.get());
    // The fired continuation cleared the flags, so the promise hands out a second
    // future; its value was claimed by the continuation's get.
    Future<int> second = promise.getFuture();
    EXPECT_EQ(errorText([&] { second.get(); }),
              "Future already returned it's value or has an associated continuation.");

    Promise<int> unread;
    Future<bool> ignored = unread.getFuture().then([](Future<int>&&) { return true; });
    unread.setValue(6);
    EXPECT_EQ(unread.getFuture().get(), 6);
}

TEST(Future, UnreadFutureLeavesThePromiseUsableAndTheValueInTheState) {
    int live = 0;
    {
        Promise<Tracked> promise;
        { Future<Tracked> dropped = promise.getFuture(); }
        promise.setValue(Tracked(&live));
        EXPECT_EQ(live, 1);
    }
    EXPECT_EQ(live, 0);
}

TEST(Future, PromiseDeathAfterSetValueIsQuietAndMovedFromPromiseResolvesNothing) {
    Future<int> future;
    {
        Promise<int> promise;
        future = promise.getFuture();
        promise.setValue(3);
    }
    EXPECT_EQ(future.get(), 3);

    Promise<int> original;
    Future<int> pending = original.getFuture();
    Promise<int> owner(std::move(original));
    { Promise<int> gone(std::move(original)); }
    owner.setValue(8);
    EXPECT_EQ(pending.get(), 8);
}

TEST(Future, ErrorsTravelDownAChainOfThen) {
    Promise<int> promise;
    int stagesRun = 0;
    auto addOne = [&stagesRun](Future<int>&& f) {
        ++stagesRun;
        return f.get() + 1;
    };
    Future<int> end = promise.getFuture().then(addOne).then(addOne).then(addOne);
    promise.setError(std::make_exception_ptr(std::out_of_range("source failed")));
    EXPECT_EQ(stagesRun, 3);
    EXPECT_THROW(
        {
            try {
                end.get();
            } catch (const std::out_of_range& error) {
                EXPECT_STREQ(error.what(), "source failed");
                throw;
            }
        },
        std::out_of_range);

    Promise<int> second;
    Future<int> failedMidway = second.getFuture()
                                   .then([](Future<int>&& f) -> int { throw std::logic_error("stage two"); })
                                   .then(addOne);
    second.setValue(1);
    EXPECT_EQ(errorText([&] { failedMidway.get(); }), "stage two");
}

TEST(Future, ErrorWrappedInAnExceptionPointerIsUnwrappedOneLevel) {
    std::exception_ptr inner = std::make_exception_ptr(std::invalid_argument("inner"));

    Promise<int> once;
    once.setError(std::make_exception_ptr(inner));
    EXPECT_THROW(once.getFuture().get(), std::invalid_argument);

    Promise<int> twice;
    twice.setError(std::make_exception_ptr(std::make_exception_ptr(inner)));
    try {
        twice.getFuture().get();
        ADD_FAILURE() << "no exception";
    } catch (const std::exception_ptr& stillWrapped) {
        EXPECT_EQ(errorText([&] { std::rethrow_exception(stillWrapped); }), "inner");
    }
}

TEST(Future, UnwrapFlattensInEitherOrderAndPassesErrorsOfBothLevels) {
    {
        Promise<Future<int>> outer;
        Promise<int> inner;
        Future<int> flat = unwrap(outer.getFuture());
        outer.setValue(inner.getFuture());
        inner.setValue(11);
        EXPECT_EQ(flat.get(), 11);
    }
    {
        Promise<int> inner;
        inner.setValue(12);
        Future<int> flat = unwrap(makeReadyFuture(inner.getFuture()));
        EXPECT_EQ(flat.get(), 12);
    }
    {
        Promise<Future<int>> outer;
        Future<int> flat = unwrap(outer.getFuture());
        outer.setError(std::make_exception_ptr(std::runtime_error("outer failed")));
        EXPECT_EQ(errorText([&] { flat.get(); }), "outer failed");
    }
    {
        Future<int> flat;
        {
            Promise<int> inner;
            flat = unwrap(makeReadyFuture(inner.getFuture()));
        }
        EXPECT_EQ(errorText([&] { flat.get(); }), "Promise destroyed before it provided a value.");
    }
}

TEST(Future, CancelledStateDropsValuesAndNeverRunsItsContinuation) {
    auto state = std::make_shared<State>();
    state->status = FutureStatus::Cancelled;
    EXPECT_NO_THROW(state->setValue(1));
    EXPECT_NO_THROW(state->setError(std::make_exception_ptr(std::runtime_error("dropped"))));
    EXPECT_EQ(state->result, nullptr);

    bool ran = false;
    bool downstreamRan = false;
    Future<bool> result = Future<int>(state).then([&ran](Future<int>&& f) {
        ran = true;
        return true;
    });
    state.reset();  // the source goes, taking the never-run continuation with it
    Future<bool> after = result.then([&downstreamRan](Future<bool>&& f) {
        downstreamRan = true;
        return true;
    });
    EXPECT_FALSE(ran);
    EXPECT_FALSE(downstreamRan);
}

TEST(FutureConcurrency, ContinuationRunsOnWhicheverThreadCompletesThePair) {
    Promise<int> attachedFirst;
    std::thread::id ranOn;
    Future<bool> first = attachedFirst.getFuture().then([&ranOn](Future<int>&& f) {
        ranOn = std::this_thread::get_id();
        return true;
    });
    std::thread resolver([&attachedFirst] { attachedFirst.setValue(1); });
    std::thread::id resolverId = resolver.get_id();
    resolver.join();
    EXPECT_EQ(ranOn, resolverId);

    Promise<int> resolvedFirst;
    Future<int> pending = resolvedFirst.getFuture();
    std::thread([&resolvedFirst] { resolvedFirst.setValue(2); }).join();
    Future<bool> second = pending.then([&ranOn](Future<int>&& f) {
        ranOn = std::this_thread::get_id();
        return true;
    });
    EXPECT_EQ(ranOn, std::this_thread::get_id());
}

TEST(FutureConcurrency, BlockedGetWakesWhenThePromiseDiesOrResolves) {
    auto promise = std::make_unique<Promise<int>>();
    Future<int> future = promise->getFuture();
    std::promise<void> aboutToWait;
    auto waiter = std::async(std::launch::async, [&] {
        aboutToWait.set_value();
        return errorText([&] { future.get(); });
    });
    aboutToWait.get_future().wait();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    promise.reset();
    EXPECT_EQ(waiter.get(), "Promise destroyed before it provided a value.");

    Promise<int> resolving;
    Future<int> answer = resolving.getFuture();
    auto reader = std::async(std::launch::async, [&answer] { return answer.get(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    resolving.setValue(99);
    EXPECT_EQ(reader.get(), 99);
}

TEST(FutureConcurrency, RacingThenAndSetValueRunEachContinuationExactlyOnce) {
    constexpr int rounds = 200;
    for (int round = 0; round < rounds; ++round) {
        Promise<int> promise;
        Future<int> future = promise.getFuture();
        std::atomic<int> runs{0};
        std::thread resolver([&promise, round] { promise.setValue(int(round)); });
        Future<int> result = future.then([&runs](Future<int>&& f) {
            runs.fetch_add(1);
            return f.get();
        });
        resolver.join();
        ASSERT_EQ(result.get(), round);
        ASSERT_EQ(runs.load(), 1);
    }
}

}  // namespace
}  // namespace korvane
