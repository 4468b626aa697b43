#pragma once

// A subscriber that gathers a stream's signals, which come on any thread, for a
// connection's loop: the relay keeps them, in the order the publisher made them, until
// the loop takes them all (takeAll), and calls `wake` under its mutex for the first
// one kept since the last take, so that one turn of the loop takes what came together
// (a WebSocket delivery and the connect reply behind it, a held connect's messages and
// the end of its body); `wake` must only post. A relay made collecting does not wake
// until its first take: the host uses that to see whether a response body was complete
// at once. detach() ends the relay for good: upstream is cancelled unless the stream
// already ended, and `wake` (with whatever it holds) and the signals kept are dropped.
// As a collectable stream (collectable.h) it hands a taker the items and the end:
// collect() gives it its `wake`, stopCollecting() detaches.
//
// Locking: `mutex` guards every field; upstream is requested and cancelled with it
// released. `donePromise` is resolved with it held.

#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "korvane/frame/collectable.h"
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
class RelaySubscriber : public reactive_streams::SubscriberAPI<T>, public reactive_streams::Collectable<T> {
public:
    using Signal = StreamSignal<T>;
    using Wake = std::function<void()>;
    using Ending = typename reactive_streams::Collectable<T>::Ending;

    explicit RelaySubscriber(Wake wake, bool collecting = false) : wake(std::move(wake)), collecting(collecting) {}

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
            if (detached) {
                return;
            }
            source = upstream.lock();
        }
        if (source) {
            source->request(n);
        }
    }

    // The signals kept so far, in arrival order; `into` must be empty and leaves its
    // storage here for the next ones. A collecting relay wakes from now on.
    void takeAll(std::vector<Signal>& into) {
        std::lock_guard<std::mutex> guard(mutex);
        collecting = false;
        into.swap(collected);
    }

    void collect(Wake taker) override {
        std::lock_guard<std::mutex> guard(mutex);
        if (detached) {
            return;
        }
        wake = std::move(taker);
        collecting = false;
        if (!collected.empty() && wake) {
            wake();
        }
    }

    Ending takeAll(common::RingQueue<T>& into) override {
        std::lock_guard<std::mutex> guard(mutex);
        collecting = false;
        Ending ending;
        for (Signal& signal : collected) {
            if (signal.item) {
                into.push_back(std::move(*signal.item));
            } else {
                ending = Ending{true, signal.error};
            }
        }
        collected.clear();
        return ending;
    }

    void stopCollecting() override { detach(); }

    void detach() {
        Wake droppedWake;
        std::shared_ptr<reactive_streams::Subscription> source;
        {
            std::lock_guard<std::mutex> guard(mutex);
            detached = true;
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
        collected.push_back(std::move(signal));
        if (!collecting && wake && collected.size() == 1) {
            wake();
        }
    }

    std::mutex mutex;
    Wake wake;
    std::vector<Signal> collected;
    std::weak_ptr<reactive_streams::Subscription> upstream;
    LazyPromise<bool> donePromise;
    bool collecting;
    bool ended = false;
    bool detached = false;
};

}  // namespace korvane::host
