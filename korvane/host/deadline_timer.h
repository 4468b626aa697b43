#pragma once

// The one timer of a connection's deadlines, armed for the earliest deadline asked for:
// an earlier deadline replaces the armed one, a later one waits for it, so asking costs a
// comparison. When it fires, the owner's onDeadline() runs: it looks at the clock and at
// its own state, does what is due and asks for the deadline that comes next, so an early
// or a spare firing does no harm.
//
// Threading: every call, and the check, on the owner's loop, whose executor the timer is
// made with. The owner is reached through a weak reference: a pending firing never keeps it
// alive, and this timer, a member of the owner, is touched only while the owner is.

#include <chrono>
#include <memory>
#include <utility>

#include <boost/asio/error.hpp>
#include <boost/asio/steady_timer.hpp>

#include "korvane/host/handler_pool.h"

namespace korvane::host {

template <class Owner>
class DeadlineTimer {
public:
    using Clock = std::chrono::steady_clock;

    template <class Executor>
    explicit DeadlineTimer(const Executor& executor) : timer(executor) {}

    void arm(Clock::time_point due, std::weak_ptr<Owner> owner) {
        if (armed && armedFor <= due) {
            return;
        }
        armed = true;
        armedFor = due;
        timer.expires_at(due);
        timer.async_wait(Wait{this, std::move(owner)});
    }

    void cancel() { timer.cancel(); }

private:
    // The wait's handler. Its allocator type sends Asio to ExactAllocator: the wait is
    // allocated to its own size rather than from the I/O thread's recycled blocks, since
    // a deadline may wait as long as its connection lives and would otherwise keep
    // whatever larger block the thread last gave back (a finished write's, some 370
    // bytes, on every idle WebSocket).
    struct Wait {
        using allocator_type = ExactAllocator<void>;
        allocator_type get_allocator() const noexcept { return {}; }

        void operator()(const boost::system::error_code& error) const {
            std::shared_ptr<Owner> self = owner.lock();
            if (self && error != boost::asio::error::operation_aborted) {
                timer->armed = false;
                self->onDeadline();
            }
        }

        DeadlineTimer* timer;
        std::weak_ptr<Owner> owner;
    };

    boost::asio::steady_timer timer;
    bool armed = false;
    Clock::time_point armedFor;
};

}  // namespace korvane::host
