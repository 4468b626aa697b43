#pragma once

// A subscriber that relays a stream's signals, which come on any thread, to a
// connection's strand. Each signal is handed to `deliver` under the relay's mutex,
// so they reach the strand in the order the publisher made them; `deliver` must
// only post, never call back into the relay. In collecting mode the signals wait
// in the relay instead, until takeCollected() hands them over and turns the relay
// into a posting one: the host uses that to see whether a response body was
// complete at once. detach() ends the relay for good: upstream is cancelled unless
// the stream already ended, and `deliver` (with whatever it holds) is dropped.
//
// Locking: `mutex_` guards every field; upstream is requested and cancelled with
// it released. `donePromise_` is resolved with it held.

#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "korvane/frame/future.h"
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

    RelaySubscriber(Deliver deliver, bool collecting) : deliver_(std::move(deliver)), collecting_(collecting) {}

    void onSubscribe(std::weak_ptr<reactive_streams::Subscription> subscription) override {
        std::lock_guard<std::mutex> guard(mutex_);
        upstream_ = std::move(subscription);
    }

    void onNext(T&& value) override { doSignal(Signal{std::move(value), false, nullptr}); }
    void onComplete() override { doSignal(Signal{std::nullopt, true, nullptr}); }
    void onError(std::exception_ptr error) override { doSignal(Signal{std::nullopt, true, std::move(error)}); }

    Future<bool> getFuture() override {
        std::lock_guard<std::mutex> guard(mutex_);
        return donePromise_.getFuture();
    }

    void request(unsigned long n) {
        std::shared_ptr<reactive_streams::Subscription> source;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            if (!deliver_) {
                return;
            }
            source = upstream_.lock();
        }
        if (source) {
            source->request(n);
        }
    }

    // The signals gathered so far; from now on signals are delivered.
    std::vector<Signal> takeCollected() {
        std::lock_guard<std::mutex> guard(mutex_);
        collecting_ = false;
        return std::move(collected_);
    }

    void detach() {
        Deliver dropped;
        std::shared_ptr<reactive_streams::Subscription> source;
        {
            std::lock_guard<std::mutex> guard(mutex_);
            dropped = std::move(deliver_);
            deliver_ = nullptr;
            collected_.clear();
            if (!ended_) {
                ended_ = true;
                donePromise_.setValue(false);
                source = upstream_.lock();
            }
        }
        if (source) {
            source->cancel();
        }
    }

private:
    void doSignal(Signal&& signal) {
        std::lock_guard<std::mutex> guard(mutex_);
        if (ended_) {
            return;
        }
        if (signal.ended) {
            ended_ = true;
            if (signal.error) {
                donePromise_.setError(signal.error);
            } else {
                donePromise_.setValue(true);
            }
        }
        if (collecting_) {
            collected_.push_back(std::move(signal));
        } else if (deliver_) {
            deliver_(std::move(signal));
        }
    }

    std::mutex mutex_;
    Deliver deliver_;
    std::vector<Signal> collected_;
    std::weak_ptr<reactive_streams::Subscription> upstream_;
    Promise<bool> donePromise_;
    bool collecting_;
    bool ended_ = false;
};

}  // namespace korvane::host
