#pragma once

// The one timer of a connection's deadlines, armed for the earliest deadline asked for:
// an earlier deadline replaces the armed one, a later one waits for it, so asking costs a
// comparison. When it fires, the owner's check runs: it looks at the clock and at its own
// state, does what is due and asks for the deadline that comes next, so an early or a
// spare firing does no harm.
//
// Threading: every call, and the check, on the owner's strand, which the timer is made
// with. The owner is reached through a weak reference: a pending firing never keeps it
// alive, and this timer, a member of the owner, is touched only while the owner is.

#include <chrono>
#include <memory>

#include <boost/asio/error.hpp>
#include <boost/asio/steady_timer.hpp>

namespace korvane::host {

template <class Owner>
class DeadlineTimer {
public:
    using Clock = std::chrono::steady_clock;

    template <class Executor>
    DeadlineTimer(const Executor& strand, void (Owner::*check)()) : timer(strand), check(check) {}

    void arm(Clock::time_point due, std::weak_ptr<Owner> owner) {
        if (armed && armedFor <= due) {
            return;
        }
        armed = true;
        armedFor = due;
        timer.expires_at(due);
        timer.async_wait([this, owner = std::move(owner)](const boost::system::error_code& error) {
            std::shared_ptr<Owner> self = owner.lock();
            if (self && error != boost::asio::error::operation_aborted) {
                armed = false;
                ((*self).*check)();
            }
        });
    }

    void cancel() { timer.cancel(); }

private:
    boost::asio::steady_timer timer;
    void (Owner::*const check)();
    bool armed = false;
    Clock::time_point armedFor;
};

}  // namespace korvane::host
