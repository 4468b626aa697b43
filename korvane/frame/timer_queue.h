#pragma once

// The armed timers of one backend, ordered by due time, and the running of those
// that are due. Every backend (the manual test clock, the host's timer thread and the
// host's I/O loop) keeps its timers here; they differ only in how time moves and
// which thread runs the callbacks.
//
// Time is a monotonic duration since the backend's origin; the tick handed to a
// callback is that time divided by the tick length.
//
// Short one-shot timers armed in due order (the 5-ms batch timers of every session,
// armed as messages arrive) wait in a FIFO lane beside the heap: a push and a pop
// there cost no sifting. The next timer to run is the earlier of the heap's
// top and the lane's front, by (due, sequence) as in the heap alone, so the order is
// the same. A timer released or armed anew while in the lane leaves a stale slot
// there, skipped once it reaches the front.
//
// A rearmable timer is one entry armed again and again (makeRearmable): an arming
// takes it out of the lane and queues it anew, and its callback stays after a run. An
// arming while its callback runs is kept and queued when the run ends. An entry keeps
// its place in the heap when it is armed again for later, or leaves the heap for the
// lane, so that a deadline pushed back by every connect costs no sifting: the place is
// ordered by an earlier (due, sequence) than the entry's arming, and once it comes up
// (the backend wakes for it) it is moved to the arming's, or dropped if the entry is
// not armed in the heap any more. A timer still runs at its arming's time, in order.
//
// Threading: one mutex guards the heap, the lane and every entry's state. arm(), nextDue(),
// armedCount() and the release of a handle may be called from any thread. runDue()
// is meant for one thread at a time (the backend's thread, or the test's
// thread); callbacks run on it with the mutex released. A handle released while its
// callback runs on another thread waits on `finished` for the callback to return;
// released on the thread that runs the callback, it marks the timer cancelled and
// returns at once. A callback's std::function, whose captures may own further
// handles, is always destroyed with the mutex released. setRearmHooks() is called by
// the backend before the queue is shared; the hooks are only read afterwards, with the
// mutex released, so a hook may call back into the queue.

#include "korvane/frame/ring_queue.h"
#include "korvane/frame/timers.h"

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "korvane/export.h"

namespace korvane::common {

class KORVANE_EXPORT TimerQueue : public std::enable_shared_from_this<TimerQueue> {
public:
    using Duration = std::chrono::nanoseconds;
    struct Entry;

    TimerQueue();
    ~TimerQueue();
    TimerQueue(const TimerQueue&) = delete;
    TimerQueue& operator=(const TimerQueue&) = delete;

    // Arms `callback` to run `delay` after `now`, then every `period` unless it is zero.
    // The queue must be held by a std::shared_ptr: the handle refers to it weakly, so a
    // handle may outlive its queue. `becameEarliest` is set when the new timer is now
    // the first due, which is when the backend's wait must be shortened.
    TimerHandle arm(TimerCallback callback, Duration now, Duration delay, Duration period,
                    bool* becameEarliest = nullptr);

    // Runs, on the calling thread and in due order, every timer due at or before
    // `now`, each with the tick of `now`. A periodic timer is re-armed one period
    // after its due time, or one period after `now` if it has fallen that far
    // behind. Returns how many callbacks ran.
    std::size_t runDue(Duration now);

    // runDue for a backend that runs timers on threads of its own: an exception from a
    // callback is reported on the standard error stream and ends this run only; the
    // timers still due run in the next.
    void runDueReportingFailures(Duration now) noexcept;
    // The clock of the host's backends: the steady clock's time since its epoch.
    static Duration steadyNow() noexcept;

    // Due time of the first armed timer, or nothing when none is armed.
    std::optional<Duration> nextDue() const;
    // Timers waiting to run: a running one-shot timer has left the queue, a
    // periodic one comes back when its callback returns.
    std::size_t armedCount() const;

    // Releases a timer; called by the handle's destructor.
    void cancel(const std::shared_ptr<Entry>& entry);

    // What the rearmable timers of this queue ask of their backend, the same for all of
    // them and so kept here rather than in each: `now` reads the backend's clock;
    // `onEarliest`, unless empty, shortens the backend's wait when an arming made a
    // timer the first due. Set once, before any rearmable timer is made.
    void setRearmHooks(std::function<Duration()> now, std::function<void()> onEarliest);
    // A rearmable timer kept in this queue, which must be held by a std::shared_ptr (the
    // timer refers to it weakly, and may outlive it).
    std::unique_ptr<RearmableTimer> makeRearmable(TimerCallback callback);
    // Arms a rearmable entry `delay` from the hooks' `now`; called by RearmableTimer::arm
    // with no lock held, and calls `onEarliest` with none.
    void rearm(const std::shared_ptr<Entry>& entry, Duration delay);
    // RearmableTimer::isArmed of an entry.
    bool isArmed(const std::shared_ptr<Entry>& entry) const;

private:
    // Entered with `mutex` held: whether a one-shot timer due at `due`, `delay` from now,
    // joins the lane.
    bool doFitsLane(Duration due, Duration delay) const;
    // Entered with `mutex` held: drops stale slots from the lane's front.
    void doPruneLane();
    // Entered with `mutex` held: queues an entry that is neither running nor queued,
    // due at `due`, `delay` from now.
    void doQueue(const std::shared_ptr<Entry>& entry, Duration due, Duration delay);
    // Entered with `mutex` held: ends the entry's arming in the heap or the lane; its
    // place in the heap, if it has one, stays.
    void doUnqueue(const std::shared_ptr<Entry>& entry);
    // Entered with `mutex` held: arms an entry whose `due` and `sequence` are set in the
    // heap, in its place there if that comes no later.
    void doArmInHeap(const std::shared_ptr<Entry>& entry);
    // Entered with `mutex` held: moves places at the heap's top that came up before their
    // entries' armings, due by `now`, to those armings, and drops those of unarmed entries.
    void doSettleHeap(Duration now);
    // Entered with `mutex` held: the first of the lane's front and the heap's top, or null.
    const std::shared_ptr<Entry>* doFirst() const;
    // Takes the first timer if it is due at `now`, marking it as running on this thread.
    std::shared_ptr<Entry> doTakeDue(Duration now);
    // After the callback: re-arms a live periodic timer, or retires the entry and
    // destroys its callback with the mutex released.
    void doFinishRun(const std::shared_ptr<Entry>& entry, Duration now);
    // Marks the entry as no longer running and wakes releases waiting for it.
    void doMarkFinished(const std::shared_ptr<Entry>& entry, std::unique_lock<std::mutex>& lock);

    // Heap operations; entered with `mutex` held.
    void doPush(const std::shared_ptr<Entry>& entry);
    void doRemoveAt(std::size_t index);
    void doSiftUp(std::size_t index);
    void doSiftDown(std::size_t index);
    void doSwap(std::size_t left, std::size_t right);
    bool doEarlier(std::size_t left, std::size_t right) const;

    mutable std::mutex mutex;
    // Signalled whenever a callback returns, for releases waiting on it.
    std::condition_variable runFinished;
    // A binary min-heap on each entry's heap key; each entry knows its own index.
    // `heapArmed` counts the entries armed there.
    std::vector<std::shared_ptr<Entry>> heap;
    std::size_t heapArmed = 0;
    // One arming of an entry in the lane: stale once the entry is released, taken out
    // or armed again (its `arming` count moved on).
    struct LaneSlot {
        std::shared_ptr<Entry> entry;
        Duration due;
        std::uint64_t arming;
    };
    // In (due, sequence) order, its front never stale; `laneArmed` counts the slots
    // that are not.
    RingQueue<LaneSlot> lane;
    std::size_t laneArmed = 0;
    std::uint64_t nextSequence = 0;
    // Written by setRearmHooks before the queue is shared, read only afterwards.
    std::function<Duration()> rearmNow;
    std::function<void()> onRearmedEarliest;
};

}  // namespace korvane::common
