#pragma once

// A connection's end of the callbacks that come from other threads (a service's
// answer, a stream's signals, a subscription's demand). While the link holds the
// connection, post() hands work to the connection's loop; once the connection
// has cut the link, work is dropped on the calling thread. Holding the connection
// strongly keeps it alive for an answer that is still to come; cutting the link is
// part of every way a connection ends, and stop() cuts what is left before the I/O
// context goes, so nothing posts to a context that no longer exists.
// Internal to the host's server: included only by its .cpp files.
//
// Locking: `mutex` guards `target` and is held across the post or defer, so that a
// cut() that returned has no post in flight. Work run in place (see InPlace) runs
// after the lock is released, on the connection's own thread, holding the target.
// `inPlaceThread` is set and cleared only by the connection's thread; another thread
// never reads its own id there.

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

#include <boost/asio/defer.hpp>
#include <boost/asio/post.hpp>

#include "korvane/host/handler_pool.h"

namespace korvane::host {

template <class Target>
class LoopLink {
public:
    explicit LoopLink(std::shared_ptr<Target> target) : target(std::move(target)) {}

    // While the target's own thread holds this scope, post() called on that thread runs
    // the work at once: an answer a service had ready when it was asked skips the trip
    // through the loop's queue. Opened by the target around the call that may resolve it.
    class InPlace {
    public:
        explicit InPlace(LoopLink& link) : link(link) {
            link.inPlaceThread.store(std::this_thread::get_id(), std::memory_order_relaxed);
        }
        ~InPlace() { link.inPlaceThread.store(std::thread::id(), std::memory_order_relaxed); }
        InPlace(const InPlace&) = delete;
        InPlace& operator=(const InPlace&) = delete;

    private:
        LoopLink& link;
    };

    // Runs `work(target)` on the target's loop, or here inside an InPlace scope of this
    // thread; false when the link is cut, and `work` is then left as it was given.
    template <class Work>
    bool post(Work&& work) {
        std::shared_ptr<Target> here = doTargetHere();
        if (!here) {
            return submit<false>(std::forward<Work>(work));
        }
        work(*here);
        return true;
    }

    // As post, but called from a handler of the same I/O context the work waits until
    // that handler has returned, and then runs on the same thread: what the handler
    // goes on to hand the target meanwhile is there when the work runs.
    template <class Work>
    bool defer(Work&& work) {
        return submit<true>(std::forward<Work>(work));
    }

    // Drops the connection; the reference goes after the lock is released.
    void cut() {
        std::shared_ptr<Target> dropped;
        std::lock_guard<std::mutex> guard(mutex);
        dropped.swap(target);
    }

private:
    // The target, when this thread holds an InPlace scope and the link is not cut.
    std::shared_ptr<Target> doTargetHere() {
        if (inPlaceThread.load(std::memory_order_relaxed) != std::this_thread::get_id()) {
            return nullptr;
        }
        std::lock_guard<std::mutex> guard(mutex);
        return target;
    }

    template <bool deferred, class Work>
    bool submit(Work&& work) {
        std::lock_guard<std::mutex> guard(mutex);
        if (!target) {
            return false;
        }
        auto run = pooledHandler([target = target, work = std::forward<Work>(work)]() mutable { work(*target); });
        if constexpr (deferred) {
            boost::asio::defer(target->executor(), std::move(run));
        } else {
            boost::asio::post(target->executor(), std::move(run));
        }
        return true;
    }

    std::mutex mutex;
    std::shared_ptr<Target> target;
    std::atomic<std::thread::id> inPlaceThread{};
};

}  // namespace korvane::host
