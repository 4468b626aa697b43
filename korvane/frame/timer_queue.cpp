#include "korvane/frame/timer_queue.h"

#include <exception>
#include <iostream>
#include <limits>
#include <thread>
#include <utility>

namespace korvane::common {

namespace {

constexpr std::size_t notInHeap = std::numeric_limits<std::size_t>::max();
// The longest wait a lane timer may have: a long one at its back would keep the short
// ones that follow out of it.
constexpr TimerQueue::Duration longestLaneDelay = std::chrono::milliseconds(50);

long long tickOf(TimerQueue::Duration now) { return now / std::chrono::milliseconds(tickMilliseconds); }

}  // namespace

// All fields are guarded by the queue's mutex, except `callback`, which the thread
// running it reads (and, for a one-shot timer, destroys) without the mutex: while
// `running` is set nobody else touches it.
struct TimerQueue::Entry {
    TimerCallback callback;
    Duration due{};
    Duration period{};
    std::uint64_t sequence = 0;
    // Counts the armings: a lane slot of an earlier one is stale.
    std::uint64_t arming = 0;
    // The entry's place in the heap and the (due, sequence) it is ordered by there, which
    // may come before the arming's own (see heapKeyIsEarly).
    std::size_t heapIndex = notInHeap;
    Duration heapDue{};
    std::uint64_t heapSequence = 0;
    // The current arming waits in the lane, or in the heap.
    bool inLane = false;
    bool inHeap = false;
    bool running = false;
    bool cancelled = false;
    // Made by makeRearmable: the callback stays after a run.
    bool rearmable = false;
    // Armed while its callback ran: queued when the run ends, `rearmDelay` after `rearmedAt`.
    bool armedInRun = false;
    Duration rearmedAt{};
    Duration rearmDelay{};
    std::thread::id runner;
};

namespace {

// The handle given out by arm(): the last reference going away cancels the timer.
class QueuedTimer final : public Timer {
public:
    QueuedTimer(std::weak_ptr<TimerQueue> queue, std::shared_ptr<TimerQueue::Entry> entry)
        : queue(std::move(queue)), entry(std::move(entry)) {}

    ~QueuedTimer() override {
        if (auto owner = queue.lock()) {
            owner->cancel(entry);
        }
    }

private:
    std::weak_ptr<TimerQueue> queue;
    std::shared_ptr<TimerQueue::Entry> entry;
};

// The rearmable timer of makeRearmable: like a handle, its end releases the timer.
class QueuedRearmableTimer final : public RearmableTimer {
public:
    QueuedRearmableTimer(std::weak_ptr<TimerQueue> queue, std::shared_ptr<TimerQueue::Entry> entry)
        : queue(std::move(queue)), entry(std::move(entry)) {}

    ~QueuedRearmableTimer() override {
        if (auto owner = queue.lock()) {
            owner->cancel(entry);
        }
    }

    void arm(std::chrono::milliseconds delay) override {
        if (auto owner = queue.lock()) {
            owner->rearm(entry, delay);
        }
    }

    bool isArmed() const override {
        auto owner = queue.lock();
        return owner && owner->isArmed(entry);
    }

private:
    std::weak_ptr<TimerQueue> queue;
    std::shared_ptr<TimerQueue::Entry> entry;
};

// The order timers run in: by due time, those due together in the order they were armed.
bool runsBefore(TimerQueue::Duration aDue, std::uint64_t aSequence, TimerQueue::Duration bDue,
                std::uint64_t bSequence) {
    return aDue != bDue ? aDue < bDue : aSequence < bSequence;
}

// An entry stands in the heap by an earlier key than its arming's when it was armed
// again for later, or is not armed in the heap at all: it is moved (or dropped) once
// its key comes up.
bool heapKeyIsEarly(const TimerQueue::Entry& entry) {
    return !entry.inHeap || entry.heapDue != entry.due || entry.heapSequence != entry.sequence;
}

}  // namespace

TimerQueue::TimerQueue() = default;

TimerQueue::~TimerQueue() {
    // Callbacks may own handles (even their own); destroying them here breaks such
    // cycles. Those handles find the queue gone and do nothing.
    std::vector<TimerCallback> retired;
    retired.reserve(heap.size());
    for (auto& entry : heap) {
        entry->heapIndex = notInHeap;
        retired.push_back(std::move(entry->callback));
    }
    heap.clear();
    for (; !lane.empty(); lane.pop_front()) {
        lane.front().entry->inLane = false;
        retired.push_back(std::move(lane.front().entry->callback));
    }
}

TimerHandle TimerQueue::arm(TimerCallback callback, Duration now, Duration delay, Duration period,
                            bool* becameEarliest) {
    auto entry = std::make_shared<Entry>();
    entry->callback = std::move(callback);
    entry->period = period;
    {
        std::lock_guard<std::mutex> guard(mutex);
        doQueue(entry, now + delay, delay);
        if (becameEarliest != nullptr) {
            *becameEarliest = *doFirst() == entry;
        }
    }
    return std::make_shared<QueuedTimer>(weak_from_this(), std::move(entry));
}

void TimerQueue::setRearmHooks(std::function<Duration()> now, std::function<void()> onEarliest) {
    rearmNow = std::move(now);
    onRearmedEarliest = std::move(onEarliest);
}

std::unique_ptr<RearmableTimer> TimerQueue::makeRearmable(TimerCallback callback) {
    auto entry = std::make_shared<Entry>();
    entry->callback = std::move(callback);
    entry->rearmable = true;
    return std::make_unique<QueuedRearmableTimer>(weak_from_this(), std::move(entry));
}

void TimerQueue::rearm(const std::shared_ptr<Entry>& entry, Duration delay) {
    const Duration now = rearmNow();
    bool becameEarliest = false;
    {
        std::lock_guard<std::mutex> guard(mutex);
        if (entry->cancelled) {
            return;
        }
        if (entry->running) {
            // The run's end queues it; the backend looks for the first due time after every run.
            entry->armedInRun = true;
            entry->rearmedAt = now;
            entry->rearmDelay = delay;
            return;
        }
        doUnqueue(entry);
        doQueue(entry, now + delay, delay);
        becameEarliest = *doFirst() == entry;
    }
    if (becameEarliest && onRearmedEarliest) {
        onRearmedEarliest();
    }
}

std::size_t TimerQueue::runDue(Duration now) {
    std::size_t ran = 0;
    while (auto entry = doTakeDue(now)) {
        // The entry is finished even when the callback throws; the exception then
        // goes to whoever drives the queue.
        struct FinishGuard {
            TimerQueue& queue;
            const std::shared_ptr<Entry>& entry;
            Duration now;
            ~FinishGuard() { queue.doFinishRun(entry, now); }
        } finish{*this, entry, now};
        ++ran;
        entry->callback(tickOf(now));
    }
    return ran;
}

bool TimerQueue::isArmed(const std::shared_ptr<Entry>& entry) const {
    std::lock_guard<std::mutex> guard(mutex);
    return entry->running ? entry->armedInRun : entry->inLane || entry->inHeap;
}

void TimerQueue::runDueReportingFailures(Duration now) noexcept {
    try {
        runDue(now);
    } catch (const std::exception& error) {
        std::cerr << "Timer callback failed: " << error.what() << std::endl;
    } catch (...) {
        std::cerr << "Timer callback failed with a non-standard exception." << std::endl;
    }
}

TimerQueue::Duration TimerQueue::steadyNow() noexcept { return std::chrono::steady_clock::now().time_since_epoch(); }

std::optional<TimerQueue::Duration> TimerQueue::nextDue() const {
    std::lock_guard<std::mutex> guard(mutex);
    const std::shared_ptr<Entry>* first = doFirst();
    if (first == nullptr) {
        return std::nullopt;
    }
    // The heap's top may stand early: the backend then wakes to find nothing due and asks again.
    return !lane.empty() && first == &lane.front().entry ? (*first)->due : (*first)->heapDue;
}

std::size_t TimerQueue::armedCount() const {
    std::lock_guard<std::mutex> guard(mutex);
    return heapArmed + laneArmed;
}

void TimerQueue::cancel(const std::shared_ptr<Entry>& entry) {
    TimerCallback retired;
    std::unique_lock<std::mutex> lock(mutex);
    entry->cancelled = true;
    doUnqueue(entry);
    if (entry->heapIndex != notInHeap) {
        doRemoveAt(entry->heapIndex);
    }
    if (entry->running && entry->runner == std::this_thread::get_id()) {
        // Released from inside its own callback: the run retires it on return.
        return;
    }
    runFinished.wait(lock, [&entry] { return !entry->running; });
    retired = std::move(entry->callback);
    lock.unlock();
}

std::shared_ptr<TimerQueue::Entry> TimerQueue::doTakeDue(Duration now) {
    std::lock_guard<std::mutex> guard(mutex);
    doSettleHeap(now);
    const std::shared_ptr<Entry>* first = doFirst();
    if (first == nullptr) {
        return nullptr;
    }
    // A heap top due by `now` is settled: its key is its arming's.
    const bool fromLane = !lane.empty() && first == &lane.front().entry;
    if ((fromLane ? (*first)->due : (*first)->heapDue) > now) {
        return nullptr;
    }
    std::shared_ptr<Entry> entry = *first;
    doUnqueue(entry);
    if (!fromLane) {
        doRemoveAt(entry->heapIndex);
    }
    entry->running = true;
    entry->runner = std::this_thread::get_id();
    return entry;
}

void TimerQueue::doFinishRun(const std::shared_ptr<Entry>& entry, Duration now) {
    // The callback is destroyed before the run counts as finished, so that a release
    // waiting on another thread returns only once the callback's captures are gone. A
    // one-shot timer's callback is done with whatever happens to the timer meanwhile, and
    // is this thread's alone while the run lasts: it goes before the mutex is taken.
    // (`period` and `rearmable` never change once armed.) A rearmable timer keeps its callback.
    if (entry->period == Duration::zero() && !entry->rearmable) {
        entry->callback = nullptr;
    }
    std::unique_lock<std::mutex> lock(mutex);
    if (!entry->cancelled && entry->period > Duration::zero()) {
        Duration next = entry->due + entry->period;
        entry->due = next > now ? next : now + entry->period;
        entry->sequence = nextSequence++;
        doArmInHeap(entry);
        doMarkFinished(entry, lock);
        return;
    }
    if (!entry->cancelled && entry->armedInRun) {
        entry->armedInRun = false;
        doQueue(entry, entry->rearmedAt + entry->rearmDelay, entry->rearmDelay);
    }
    if (entry->cancelled && entry->callback) {
        // A periodic or rearmable timer released meanwhile.
        TimerCallback retired = std::move(entry->callback);
        lock.unlock();
        retired = nullptr;
        lock.lock();
    }
    doMarkFinished(entry, lock);
}

void TimerQueue::doMarkFinished(const std::shared_ptr<Entry>& entry, std::unique_lock<std::mutex>& lock) {
    entry->running = false;
    lock.unlock();
    runFinished.notify_all();
}

bool TimerQueue::doFitsLane(Duration due, Duration delay) const {
    // A stale back slot's due time still bounds those of the live slots before it.
    return delay <= longestLaneDelay && (lane.empty() || due >= lane.back().due);
}

void TimerQueue::doPruneLane() {
    while (!lane.empty() && !(lane.front().entry->inLane && lane.front().arming == lane.front().entry->arming)) {
        lane.pop_front();
    }
}

void TimerQueue::doQueue(const std::shared_ptr<Entry>& entry, Duration due, Duration delay) {
    entry->due = due;
    entry->sequence = nextSequence++;
    ++entry->arming;
    if (entry->period == Duration::zero() && doFitsLane(due, delay)) {
        entry->inLane = true;
        lane.push_back(LaneSlot{entry, due, entry->arming});
        ++laneArmed;
    } else {
        doArmInHeap(entry);
    }
}

void TimerQueue::doArmInHeap(const std::shared_ptr<Entry>& entry) {
    entry->inHeap = true;
    ++heapArmed;
    if (entry->heapIndex == notInHeap) {
        entry->heapDue = entry->due;
        entry->heapSequence = entry->sequence;
        doPush(entry);
    } else if (runsBefore(entry->due, entry->sequence, entry->heapDue, entry->heapSequence)) {
        entry->heapDue = entry->due;
        entry->heapSequence = entry->sequence;
        doSiftUp(entry->heapIndex);
    }
    // Otherwise the entry's place, left by an earlier arming, comes first: it stays, and is
    // moved to this arming's once it comes up. A connect's deadline, armed anew by every
    // connect, thus moves in the heap once per deadline rather than once per connect.
}

void TimerQueue::doSettleHeap(Duration now) {
    while (!heap.empty() && heapKeyIsEarly(*heap.front()) && heap.front()->heapDue <= now) {
        Entry& top = *heap.front();
        if (!top.inHeap) {
            doRemoveAt(0);
            continue;
        }
        top.heapDue = top.due;
        top.heapSequence = top.sequence;
        doSiftDown(0);
    }
}

void TimerQueue::doUnqueue(const std::shared_ptr<Entry>& entry) {
    if (entry->inLane) {
        entry->inLane = false;
        --laneArmed;
        doPruneLane();
    } else if (entry->inHeap) {
        // Its place stays, for a later arming to take or for doSettleHeap to drop.
        entry->inHeap = false;
        --heapArmed;
    }
}

const std::shared_ptr<TimerQueue::Entry>* TimerQueue::doFirst() const {
    if (lane.empty()) {
        return heap.empty() ? nullptr : &heap.front();
    }
    const std::shared_ptr<Entry>& laneFirst = lane.front().entry;
    if (heap.empty()) {
        return &laneFirst;
    }
    const Entry& top = *heap.front();
    return runsBefore(laneFirst->due, laneFirst->sequence, top.heapDue, top.heapSequence) ? &laneFirst
                                                                                           : &heap.front();
}

void TimerQueue::doPush(const std::shared_ptr<Entry>& entry) {
    entry->heapIndex = heap.size();
    heap.push_back(entry);
    doSiftUp(entry->heapIndex);
}

void TimerQueue::doRemoveAt(std::size_t index) {
    std::size_t last = heap.size() - 1;
    if (index != last) {
        doSwap(index, last);
    }
    heap.back()->heapIndex = notInHeap;
    heap.pop_back();
    if (index < heap.size()) {
        doSiftDown(index);
        doSiftUp(index);
    }
}

void TimerQueue::doSiftUp(std::size_t index) {
    while (index > 0) {
        std::size_t parent = (index - 1) / 2;
        if (!doEarlier(index, parent)) {
            return;
        }
        doSwap(index, parent);
        index = parent;
    }
}

void TimerQueue::doSiftDown(std::size_t index) {
    for (;;) {
        std::size_t earliest = index;
        std::size_t left = 2 * index + 1;
        std::size_t right = left + 1;
        if (left < heap.size() && doEarlier(left, earliest)) {
            earliest = left;
        }
        if (right < heap.size() && doEarlier(right, earliest)) {
            earliest = right;
        }
        if (earliest == index) {
            return;
        }
        doSwap(index, earliest);
        index = earliest;
    }
}

void TimerQueue::doSwap(std::size_t left, std::size_t right) {
    std::swap(heap[left], heap[right]);
    heap[left]->heapIndex = left;
    heap[right]->heapIndex = right;
}

bool TimerQueue::doEarlier(std::size_t left, std::size_t right) const {
    return runsBefore(heap[left]->heapDue, heap[left]->heapSequence, heap[right]->heapDue, heap[right]->heapSequence);
}

}  // namespace korvane::common
