#pragma once

// A stream whose values one taker collects on its own thread instead of subscribing:
// the stream keeps them, in order, and wakes the taker for the first one kept since its
// last take, so that one take gathers what came together. A host's connection reads its
// service's frames this way with one lock a value, where a subscriber in between would
// add its own lock and hand-over.
//
// Threading: collect() and stopCollecting() may be called on any thread, takeAll() on
// the taker's. `wake` is called under the stream's lock and must only post.

#include <exception>
#include <functional>

#include "korvane/frame/ring_queue.h"

namespace korvane::reactive_streams {

template <class T>
class Collectable {
public:
    // How the stream stood at a take: ended (failed when `error` is set) once every value came.
    struct Ending {
        bool ended = false;
        std::exception_ptr error;
    };

    // Once, instead of a subscriber. A stream that already holds values or has ended wakes at once.
    virtual void collect(std::function<void()> wake) = 0;
    // Moves the values kept so far onto the back of `into`, in order; the next value wakes again.
    // The end is told at one take only, behind the last value; later takes find nothing.
    virtual Ending takeAll(common::RingQueue<T>& into) = 0;
    // The taker is gone: the stream ends as a cancelled subscription would, and neither wakes
    // nor hands out anything again. `wake` is dropped before this returns.
    virtual void stopCollecting() = 0;

protected:
    ~Collectable() = default;
};

}  // namespace korvane::reactive_streams
