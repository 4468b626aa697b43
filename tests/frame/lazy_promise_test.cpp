#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <tuple>

#include "korvane/frame/lazy_promise.h"
#include "support/test_helpers.h"

namespace korvane {
namespace {

using test_support::errorOf;

// What a future taken at some point of a promise's life yields: the outcome, whether
// the future came before or after it, whether a continuation runs at once, and the texts of misuse.
TEST(LazyPromise, AFutureYieldsTheOutcomeWhicheverCameFirstAndMisuseIsRefused) {
    const auto failure = std::make_exception_ptr(std::runtime_error("broken"));
    // Each case's name, steps, and what its future yields: "true", "false" or the error's text.
    const std::tuple<const char*, std::function<Future<bool>(LazyPromise<bool>&)>, std::string> cases[] = {
        {"value, then future", [](auto& p) { p.setValue(true); return p.getFuture(); }, "true"},
        {"future, then value", [](auto& p) { auto f = p.getFuture(); p.setValue(false); return f; }, "false"},
        {"error, then future", [&](auto& p) { p.setError(failure); return p.getFuture(); }, "broken"},
        {"future, then error", [&](auto& p) { auto f = p.getFuture(); p.setError(failure); return f; }, "broken"},
        {"future, promise gone", [](auto&) { LazyPromise<bool> gone; return gone.getFuture(); },
         "Promise destroyed before it provided a value."},
        {"second outcome", [](auto& p) { p.setValue(true); p.setValue(true); return p.getFuture(); },
         "Promise already resolved."},
        {"second future", [](auto& p) { p.setValue(true); p.getFuture(); return p.getFuture(); },
         "Promise already returned a future."},
        // A continuation attached early runs inside the outcome.
        {"continuation, then value", [](auto& p) {
             bool ran = false;
             p.getFuture().then([&ran](Future<bool>&& done) { return ran = done.get(); });
             return p.setValue(true), makeReadyFuture(bool{ran});
         }, "true"},
    };
    for (const auto& [name, steps, yields] : cases) {
        LazyPromise<bool> promise;
        const auto yielded = [&, &steps = steps] { throw std::runtime_error(steps(promise).get() ? "true" : "false"); };
        EXPECT_EQ(errorOf<std::runtime_error>(yielded), yields) << name;
    }
}

}  // namespace
}  // namespace korvane
