#pragma once

// A Promise whose shared state is made only when a future is asked for before the
// outcome is known. Most streams end with nobody waiting on them, and a state (a
// mutex, a condition variable and a control block) per stream is most of what an
// idle connection's reactive plumbing holds. To its callers it behaves as a Promise:
// one future, handed out ready when the outcome came first; "Promise already
// resolved." on a second outcome, "Promise already returned a future." on a second
// future; a future taken and never resolved fails when the promise goes.
//
// Threading: none of its own. The owner serialises every call, typically under its
// mutex; a continuation attached to a future taken early runs inside setValue or
// setError, as a Promise's would.

#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

#include "korvane/frame/future.h"

namespace korvane {

template <class T>
class LazyPromise {
public:
    void setValue(T&& value) {
        claimOutcome();
        if (promise) {
            promise->setValue(std::move(value));
        } else {
            outcome.emplace(std::move(value));
        }
    }

    void setError(std::exception_ptr failure) {
        claimOutcome();
        if (promise) {
            promise->setError(std::move(failure));
        } else {
            error = std::move(failure);
        }
    }

    Future<T> getFuture() {
        if (futureTaken) {
            throw std::runtime_error("Promise already returned a future.");
        }
        futureTaken = true;
        if (outcome) {
            return makeReadyFuture<T>(std::move(*outcome));
        }
        if (error) {
            return makeErrorFuture<T>(error);
        }
        promise = std::make_unique<Promise<T>>();
        return promise->getFuture();
    }

private:
    void claimOutcome() {
        if (resolved) {
            throw std::runtime_error("Promise already resolved.");
        }
        resolved = true;
    }

    std::unique_ptr<Promise<T>> promise;  // only for a future taken before the outcome
    std::optional<T> outcome;             // an outcome no future has taken yet
    std::exception_ptr error;
    bool resolved = false;
    bool futureTaken = false;
};

}  // namespace korvane
