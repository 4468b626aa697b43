#pragma once

// A connection's end of the callbacks that come from other threads (a service's
// answer, a stream's signals, a subscription's demand). While the link holds the
// connection, post() hands work to the connection's strand; once the connection
// has cut the link, work is dropped on the calling thread. Holding the connection
// strongly keeps it alive for an answer that is still to come; cutting the link is
// part of every way a connection ends, and stop() cuts what is left before the I/O
// context goes, so nothing posts to a context that no longer exists.
// Internal to the host's server: included only by its .cpp files.
//
// Locking: `mutex_` guards `target_` and is held across the post (which never runs
// the work inline), so that a cut() that returned has no post in flight.

#include <memory>
#include <mutex>
#include <utility>

#include <boost/asio/post.hpp>

namespace korvane::host {

template <class Target>
class StrandLink {
public:
    explicit StrandLink(std::shared_ptr<Target> target) : target_(std::move(target)) {}

    // Runs `work(target)` on the target's strand; false when the link is cut.
    template <class Work>
    bool post(Work&& work) {
        std::lock_guard<std::mutex> guard(mutex_);
        if (!target_) {
            return false;
        }
        boost::asio::post(target_->executor(),
                          [target = target_, work = std::forward<Work>(work)]() mutable { work(*target); });
        return true;
    }

    // Drops the connection; the reference goes after the lock is released.
    void cut() {
        std::shared_ptr<Target> dropped;
        std::lock_guard<std::mutex> guard(mutex_);
        dropped.swap(target_);
    }

private:
    std::mutex mutex_;
    std::shared_ptr<Target> target_;
};

}  // namespace korvane::host
