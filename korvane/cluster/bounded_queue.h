#pragma once

// A first-in first-out hand-over between threads that never grows past its
// capacity: a push into a full queue drops the item and counts it, so that a
// producer never waits for the consumer.
//
// Locking: one mutex guards every field; `ready` wakes a consumer blocked in pop.
// Any number of producers and consumers, on any threads. Items are moved in and
// out under the mutex, so T's move must not call back into the queue.

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

namespace korvane::cluster {

template <class T>
class BoundedQueue {
public:
    explicit BoundedQueue(std::size_t capacity) : capacity(capacity) {}
    BoundedQueue(const BoundedQueue&) = delete;
    BoundedQueue& operator=(const BoundedQueue&) = delete;

    enum class Push { Queued, Dropped, Closed };

    // Dropped (and counted) when the queue is full; Closed, not counted, once it is closed.
    Push push(T&& item) {
        {
            std::lock_guard<std::mutex> guard(mutex);
            if (closed) {
                return Push::Closed;
            }
            if (items.size() >= capacity) {
                ++dropped;
                ++droppedEver;
                return Push::Dropped;
            }
            items.push_back(std::move(item));
        }
        ready.notify_one();
        return Push::Queued;
    }

    // The oldest item; blocks while the queue is empty and open. Empty once closed,
    // whatever is left in it.
    std::optional<T> pop() {
        std::unique_lock<std::mutex> lock(mutex);
        ready.wait(lock, [this] { return closed || !items.empty(); });
        if (closed) {
            return std::nullopt;
        }
        T item = std::move(items.front());
        items.pop_front();
        return item;
    }

    // Wakes every blocked pop and refuses every later push.
    void close() {
        {
            std::lock_guard<std::mutex> guard(mutex);
            closed = true;
        }
        ready.notify_all();
    }

    // The count of items dropped since the previous call.
    std::uint64_t takeDropped() {
        std::lock_guard<std::mutex> guard(mutex);
        return std::exchange(dropped, 0);
    }

    // The count of items dropped since the queue was made.
    std::uint64_t totalDropped() {
        std::lock_guard<std::mutex> guard(mutex);
        return droppedEver;
    }

    std::size_t size() {
        std::lock_guard<std::mutex> guard(mutex);
        return items.size();
    }

private:
    const std::size_t capacity;
    std::mutex mutex;
    std::condition_variable ready;
    std::deque<T> items;
    std::uint64_t dropped = 0;
    std::uint64_t droppedEver = 0;
    bool closed = false;
};

}  // namespace korvane::cluster
