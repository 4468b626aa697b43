#pragma once

// A subscriber that relays a stream's signals, which come on any thread, to a
// connection's loop. Each signal is handed to `deliver` under the relay's mutex,
// so they reach the loop in the order the publisher made them; `deliver` must
// only post, never call back into the relay. In collecting mode the signals wait
// in the relay instead, until takeCollected() hands them over and turns the relay
// into a posting one: the host uses that to see whether a response body was
// complete at once. detach() ends the relay for good: upstream is cancelled unless
// the stream already ended, and `deliver` (with whatever it holds) is dropped.
//
// Locking: `mutex` guards every field; upstream is requested and cancelled with
// it released. `donePromise` is resolved with it held.

#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "korvane/frame/future.h"
#include "korvane/frame/lazy_promise.h"
#include "korvane/frame/reactive_streams.h"

namespace korvane::host {

// One signal of a stream: an item, or its end (with the error if it failed).
template <class T>
struct StreamSignal {
    std::optional<T> item;
    bool ended = false;
    std::exception_ptr error;
};

template <class T>
class RelaySubscriber : public reactive_streams::SubscriberAPI<T> {
public:
    using Signal = StreamSignal<T>;
    using Deliver = std::function<void(Signal&&)>;

    RelaySubscriber(Deliver deliver, bool collecting) : deliver(std::move(deliver)), collecting(collecting) {}

    void onSubscribe(std::weak_ptr<reactive_streams::Subscription> subscription) override {
        std::lock_guard<std::mutex> guard(mutex);
        upstream = std::move(subscription);
    }

    void onNext(T&& value) override { doSignal(Signal{std::move(value), false, nullptr}); }
    void onComplete() override { doSignal(Signal{std::nullopt, true, nullptr}); }
    void onError(std::exception_ptr error) override { doSignal(Signal{std::nullopt, true, std::move(error)}); }

    Future<bool> getFuture() override {
        std::lock_guard<std::mutex> guard(mutex);
        return donePromise.getFuture();
    }

    void request(unsigned long n) {
        std::shared_ptr<reactive_streams::Subscription> source;
        {
            std::lock_guard<std::mutex> guard(mutex);
            if (!deliver) {
                return;
            }
            source = upstream.lock();
        }
        if (source) {
            source->request(n);
        }
    }

    // The signals gathered so far; from now on signals are delivered.
    std::vector<Signal> takeCollected() {
        std::lock_guard<std::mutex> guard(mutex);
        collecting = false;
        return std::move(collected);
    }

    void detach() {
        Deliver dropped;
        std::shared_ptr<reactive_streams::Subscription> source;
        {
            std::lock_guard<std::mutex> guard(mutex);
            dropped = std::move(deliver);
            deliver = nullptr;
            collected.clear();
            if (!ended) {
                ended = true;
                donePromise.setValue(false);
                source = upstream.lock();
            }
        }
        if (source) {
            source->cancel();
        }
    }

private:
    void doSignal(Signal&& signal) {
        std::lock_guard<std::mutex> guard(mutex);
        if (ended) {
            return;
        }
        if (signal.ended) {
            ended = true;
            if (signal.error) {
                donePromise.setError(signal.error);
            } else {
                donePromise.setValue(true);
            }
        }
        if (collecting) {
            collected.push_back(std::move(signal));
        } else if (deliver) {
            deliver(std::move(signal));
        }
    }

    std::mutex mutex;
    Deliver deliver;
    std::vector<Signal> collected;
    std::weak_ptr<reactive_streams::Subscription> upstream;
    LazyPromise<bool> donePromise;
    bool collecting;
    bool ended = false;
};

}  // namespace korvane::host
