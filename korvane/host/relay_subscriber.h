#pragma once

// A subscriber that relays a stream's signals, which come on any thread, to a
// connection's loop. Each signal is handed to `deliver` under the relay's mutex,
// so they reach the loop in the order the publisher made them; `deliver` must
// only post, never call back into the relay. In collecting mode the signals wait
// in the relay instead, until takeCollected() hands them over and turns the relay
// into a posting one: the host uses that to see whether a response body was
// complete at once. A gathering relay keeps its signals until the loop takes them
// all (takeAll), and calls `wake` under its mutex for the first one kept since the
// last take, so that one turn of the loop takes what came together (a WebSocket
// delivery and the connect reply behind it); `wake`, too, must only post. detach()
// ends the relay for good: upstream is cancelled unless the stream already ended, and
// `deliver` or `wake` (with whatever it holds) is dropped.
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
    using Wake = std::function<void()>;

    RelaySubscriber(Deliver deliver, bool collecting) : deliver(std::move(deliver)), collecting(collecting) {}
    // A gathering relay.
    explicit RelaySubscriber(Wake wake) : wake(std::move(wake)), collecting(false) {}

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
            if (!deliver && !wake) {
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

    // A gathering relay's signals, in arrival order; `into` must be empty and leaves its
    // storage here for the next ones.
    void takeAll(std::vector<Signal>& into) {
        std::lock_guard<std::mutex> guard(mutex);
        into.swap(collected);
    }

    void detach() {
        Deliver dropped;
        Wake droppedWake;
        std::shared_ptr<reactive_streams::Subscription> source;
        {
            std::lock_guard<std::mutex> guard(mutex);
            dropped = std::move(deliver);
            deliver = nullptr;
            droppedWake = std::move(wake);
            wake = nullptr;
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
        } else if (wake) {
            collected.push_back(std::move(signal));
            if (collected.size() == 1) {
                wake();
            }
        } else if (deliver) {
            deliver(std::move(signal));
        }
    }

    std::mutex mutex;
    Deliver deliver;
    Wake wake;
    std::vector<Signal> collected;
    std::weak_ptr<reactive_streams::Subscription> upstream;
    LazyPromise<bool> donePromise;
    bool collecting;
    bool ended = false;
};

}  // namespace korvane::host
