#pragma once

// One-shot, single-consumer result channel: Promise<T> writes, Future<T> reads.
// A future made ready (makeReadyFuture) holds its value itself and has no shared
// state, so an answer known at once costs no allocation and no lock.
//
// Threading: a state has one mutex; no operation here holds two. A continuation
// attached by `then` runs on whichever thread completes the pair last: the
// resolver if `then` came first, the caller of `then` if the value was already
// there. It always runs with no lock of the state held, so it may resolve other
// promises and attach further continuations. `get` is the only blocking call.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include "korvane/export.h"

namespace korvane {

template <class T>
class KORVANE_EXPORT Future;
template <class T>
class KORVANE_EXPORT Promise;

namespace detail {

enum class FutureStatus : std::int32_t { Pending = 0, Value = 1, Error = 2, Cancelled = 3 };

template <class T>
class KORVANE_EXPORT ContinuationBase {
public:
    virtual ~ContinuationBase() = default;
    virtual void run(Future<T>&& future) = 0;
};

template <class T>
class KORVANE_EXPORT SharedFutureState : public std::enable_shared_from_this<SharedFutureState<T>> {
public:
    SharedFutureState() = default;
    SharedFutureState(const SharedFutureState&) = delete;
    SharedFutureState& operator=(const SharedFutureState&) = delete;
    ~SharedFutureState();

    void setValue(T&& value);
    void setError(std::exception_ptr error);
    Future<T> getFuture();
    // Entered with `lock` held on `mutex`; returns with it released.
    void fireContinuation(std::unique_lock<std::mutex>& lock);

    std::mutex mutex;
    std::condition_variable condition;
    // Owning, interpreted by `status`: the T in `valueSpace` for Value, a std::exception_ptr
    // on the heap for Error.
    void* result = nullptr;
    ContinuationBase<T>* continuation = nullptr;
    FutureStatus status = FutureStatus::Pending;
    bool futureReturned = false;
    bool valueReturned = false;
    // A value lives in the state itself: a heap record of its own was an allocation and a
    // free for every resolved promise, several per connect.
    alignas(T) unsigned char valueSpace[sizeof(T)];

private:
    void store(FutureStatus resolved, void* record, std::unique_lock<std::mutex>& lock);
};

template <class T, class F, class R>
class KORVANE_EXPORT Continuation final : public ContinuationBase<T> {
public:
    Continuation(F&& function, std::shared_ptr<SharedFutureState<R>> state)
        : callable(std::move(function)), resultState(std::move(state)) {}

    void run(Future<T>&& future) override {
        try {
            resultState->setValue(callable(std::move(future)));
        } catch (...) {
            resultState->setError(std::current_exception());
        }
    }

    F callable;
    std::shared_ptr<SharedFutureState<R>> resultState;
};

}  // namespace detail

template <class T>
class KORVANE_EXPORT Future {
public:
    using State = detail::SharedFutureState<T>;

    Future() noexcept : valid(false) {}
    explicit Future(std::shared_ptr<State> sharedState) noexcept
        : state(std::move(sharedState)), valid(state != nullptr) {}
    Future(Future&& other) noexcept
        : state(std::move(other.state)), readyValue(std::move(other.readyValue)), valid(other.valid.exchange(false)) {}
    Future& operator=(Future&& other) noexcept {
        if (this != &other) {
            state = std::move(other.state);
            readyValue = std::move(other.readyValue);
            valid.store(other.valid.exchange(false));
        }
        return *this;
    }
    Future(const Future&) = delete;
    Future& operator=(const Future&) = delete;
    // Neither cancels nor resolves: an unread value stays in the state until it goes.
    ~Future() { valid.store(false); }

    bool isValid() const noexcept { return valid.load(); }

    // Blocks until resolved. Claims the result: a second `get` is refused.
    T get();

    // Attaches `function(Future<T>&&) -> R` and spends this future.
    template <class F>
    auto then(F&& function) -> Future<std::invoke_result_t<std::decay_t<F>&, Future<T>&&>>;

private:
    template <class U>
    friend Future<U> makeReadyFuture(U&& value);
    template <class U>
    friend Future<U> unwrap(Future<Future<U>>&& outer);

    struct Ready {};
    Future(T&& value, Ready) : readyValue(std::move(value)), valid(true) {}

    // `then` on a ready future: runs `function` here and now, as a state's continuation would.
    template <class F>
    auto thenReady(F&& function) -> Future<std::invoke_result_t<std::decay_t<F>&, Future<T>&&>>;

    // Without a state the future is ready: its value is here until `get` or `then` takes it.
    std::shared_ptr<State> state;
    std::optional<T> readyValue;
    std::atomic<bool> valid;
};

template <class T>
class KORVANE_EXPORT Promise {
public:
    using State = detail::SharedFutureState<T>;

    Promise() : state(std::make_shared<State>()), valid(true) {}
    Promise(Promise&& other) noexcept : state(std::move(other.state)), valid(other.valid.exchange(false)) {}
    Promise& operator=(Promise&& other) noexcept {
        if (this != &other) {
            Promise previous(std::move(*this));
            state = std::move(other.state);
            valid.store(other.valid.exchange(false));
        }
        return *this;
    }
    Promise(const Promise&) = delete;
    Promise& operator=(const Promise&) = delete;
    // A promise that dies unresolved fails its state, which wakes a blocked `get`.
    ~Promise();

    bool isValid() const noexcept { return valid.load(); }
    Future<T> getFuture() { return checkedState()->getFuture(); }
    void setValue(T&& value) { checkedState()->setValue(std::move(value)); }
    void setError(std::exception_ptr error) { checkedState()->setError(std::move(error)); }

private:
    // A copy, so that the state outlives the call even if the promise is moved meanwhile.
    std::shared_ptr<State> checkedState() const {
        if (!valid.load()) {
            throw std::runtime_error("Promise state isn't valid!");
        }
        return state;
    }

    std::shared_ptr<State> state;
    std::atomic<bool> valid;
};

// A future that already holds `value`.
template <class T>
Future<T> makeReadyFuture(T&& value) {
    return Future<T>(std::move(value), typename Future<T>::Ready{});
}

template <class T>
Future<T> makeErrorFuture(std::exception_ptr error) {
    auto state = std::make_shared<detail::SharedFutureState<T>>();
    state->setError(std::move(error));
    return Future<T>(std::move(state));
}

// Flattens a nested future: the result resolves with the inner future's outcome. An
// outer future that is ready gives its inner one as it is, which resolves the same.
template <class T>
Future<T> unwrap(Future<Future<T>>&& outer) {
    if (outer.isValid() && !outer.state && outer.readyValue && outer.readyValue->isValid()) {
        Future<T> inner = std::move(*outer.readyValue);
        outer.readyValue.reset();
        outer.valid.store(false);
        return inner;
    }
    auto flat = std::make_shared<detail::SharedFutureState<T>>();
    outer.then([flat](Future<Future<T>>&& resolvedOuter) -> bool {
        try {
            Future<T> inner = resolvedOuter.get();
            inner.then([flat](Future<T>&& resolvedInner) -> bool {
                try {
                    flat->setValue(resolvedInner.get());
                } catch (...) {
                    flat->setError(std::current_exception());
                }
                return true;
            });
        } catch (...) {
            flat->setError(std::current_exception());
        }
        return true;
    });
    return Future<T>(std::move(flat));
}

// ---- implementation ------------------------------------------------------------

namespace detail {

template <class T>
SharedFutureState<T>::~SharedFutureState() {
    ContinuationBase<T>* pending = nullptr;
    {
        std::lock_guard<std::mutex> guard(mutex);
        if (status == FutureStatus::Value) {
            static_cast<T*>(result)->~T();
        } else if (status == FutureStatus::Error) {
            delete static_cast<std::exception_ptr*>(result);
        }
        result = nullptr;
        pending = continuation;
        continuation = nullptr;
    }
    delete pending;  // its result state is released unresolved
}

template <class T>
void SharedFutureState<T>::store(FutureStatus resolved, void* record, std::unique_lock<std::mutex>& lock) {
    result = record;
    status = resolved;
    fireContinuation(lock);
}

template <class T>
void SharedFutureState<T>::setValue(T&& value) {
    std::unique_lock<std::mutex> lock(mutex);
    if (status == FutureStatus::Pending) {
        store(FutureStatus::Value, new (valueSpace) T(std::move(value)), lock);
    } else if (status != FutureStatus::Cancelled) {
        throw std::runtime_error("Promise already resolved.");
    }
}

template <class T>
void SharedFutureState<T>::setError(std::exception_ptr error) {
    std::unique_lock<std::mutex> lock(mutex);
    if (status == FutureStatus::Pending) {
        store(FutureStatus::Error, new std::exception_ptr(std::move(error)), lock);
    } else if (status != FutureStatus::Cancelled) {
        throw std::runtime_error("Promise already resolved.");
    }
}

template <class T>
Future<T> SharedFutureState<T>::getFuture() {
    std::lock_guard<std::mutex> guard(mutex);
    if (futureReturned) {
        throw std::runtime_error("Promise already returned a future.");
    }
    futureReturned = true;
    return Future<T>(this->shared_from_this());
}

template <class T>
void SharedFutureState<T>::fireContinuation(std::unique_lock<std::mutex>& lock) {
    // Keeps the state alive through the notify even if the continuation drops the last handle.
    std::shared_ptr<SharedFutureState<T>> self;
    if (continuation != nullptr && (status == FutureStatus::Value || status == FutureStatus::Error)) {
        std::unique_ptr<ContinuationBase<T>> running(continuation);
        continuation = nullptr;
        futureReturned = false;
        valueReturned = false;
        self = this->shared_from_this();
        lock.unlock();
        {
            Future<T> fresh(self);
            running->run(std::move(fresh));
        }
        running.reset();
    } else {
        lock.unlock();
    }
    condition.notify_all();
}

}  // namespace detail

template <class T>
T Future<T>::get() {
    if (!valid.load()) {
        throw std::runtime_error("Future state isn't valid!");
    }
    if (!state) {
        if (!readyValue) {
            throw std::runtime_error("Future already returned it's value or has an associated continuation.");
        }
        T value = std::move(*readyValue);
        readyValue.reset();
        return value;
    }
    std::shared_ptr<State> held = state;
    std::unique_lock<std::mutex> lock(held->mutex);
    if (held->valueReturned || held->continuation != nullptr) {
        throw std::runtime_error("Future already returned it's value or has an associated continuation.");
    }
    held->valueReturned = true;
    held->condition.wait(lock, [&held] { return held->status != detail::FutureStatus::Pending; });
    switch (held->status) {
        case detail::FutureStatus::Value:
            return std::move(*static_cast<T*>(held->result));
        case detail::FutureStatus::Error: {
            std::exception_ptr error = std::move(*static_cast<std::exception_ptr*>(held->result));
            try {
                std::rethrow_exception(error);
            } catch (const std::exception_ptr& inner) {
                // An error built from an exception_ptr object: undo exactly one level.
                std::rethrow_exception(inner);
            }
        }
        case detail::FutureStatus::Cancelled:
            throw std::runtime_error("Future has been cancelled.");
        default:
            throw std::runtime_error("Invalid Future state reached.");
    }
}

template <class T>
template <class F>
auto Future<T>::then(F&& function) -> Future<std::invoke_result_t<std::decay_t<F>&, Future<T>&&>> {
    using R = std::invoke_result_t<std::decay_t<F>&, Future<T>&&>;
    static_assert(!std::is_void_v<R>, "a continuation must return a value (return a bool if nothing else)");
    if (!valid.exchange(false)) {
        throw std::runtime_error("Future state isn't valid!");
    }
    if (!state) {
        return thenReady(std::forward<F>(function));
    }
    std::unique_lock<std::mutex> lock(state->mutex);
    if (state->valueReturned || state->continuation != nullptr) {
        throw std::runtime_error("Future already has returned it's value or has an associated continuation.");
    }
    auto resultState = std::make_shared<detail::SharedFutureState<R>>();
    auto continuation = std::make_unique<detail::Continuation<T, std::decay_t<F>, R>>(
        std::decay_t<F>(std::forward<F>(function)), resultState);
    Future<R> result = resultState->getFuture();
    state->continuation = continuation.release();
    state->fireContinuation(lock);
    return result;
}

template <class T>
template <class F>
auto Future<T>::thenReady(F&& function) -> Future<std::invoke_result_t<std::decay_t<F>&, Future<T>&&>> {
    using R = std::invoke_result_t<std::decay_t<F>&, Future<T>&&>;
    if (!readyValue) {
        throw std::runtime_error("Future already has returned it's value or has an associated continuation.");
    }
    Future<T> spent(std::move(*readyValue), Ready{});
    readyValue.reset();
    std::decay_t<F> callable(std::forward<F>(function));
    try {
        return makeReadyFuture<R>(callable(std::move(spent)));
    } catch (...) {
        return makeErrorFuture<R>(std::current_exception());
    }
}

template <class T>
Promise<T>::~Promise() {
    if (!valid.exchange(false)) {
        state.reset();
        return;
    }
    std::shared_ptr<State> held = std::move(state);
    std::unique_lock<std::mutex> lock(held->mutex);
    if (held->status == detail::FutureStatus::Pending) {
        held->result = new std::exception_ptr(
            std::make_exception_ptr(std::runtime_error("Promise destroyed before it provided a value.")));
        held->status = detail::FutureStatus::Error;
    }
    held->fireContinuation(lock);
}

}  // namespace korvane
