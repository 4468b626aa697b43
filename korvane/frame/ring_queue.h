#pragma once

// A first-in first-out queue on one ring of slots that owns no memory while empty.
// std::deque allocates a 512-byte block as soon as it is constructed, and every idle
// WebSocket client holds five queues (the session's pending messages, its held connect's
// queue, the transport's frame caches, the host's write queue): their blocks were a sixth
// of what such a client cost. The ring doubles when full; once it drains after holding
// more than `keptSlots` values it is released, so that a burst's slots do not stay with
// a connection for good.
//
// Threading: none of its own; the owner's lock guards it as it would a std::deque.

#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include "korvane/export.h"

namespace korvane::common {

template <typename T>
class KORVANE_EXPORT RingQueue {
    // Growing moves every value into the new ring, which a throwing move would leave torn.
    static_assert(std::is_nothrow_move_constructible_v<T>, "RingQueue values must move without throwing");

public:
    RingQueue() = default;
    RingQueue(RingQueue&& other) noexcept { swap(other); }
    RingQueue& operator=(RingQueue&& other) noexcept {
        RingQueue(std::move(other)).swap(*this);
        return *this;
    }
    RingQueue(const RingQueue&) = delete;
    RingQueue& operator=(const RingQueue&) = delete;
    ~RingQueue() { release(); }

    bool empty() const { return count == 0; }
    std::size_t size() const { return count; }

    // The oldest and the newest value; the queue must not be empty.
    T& front() { return slots[head]; }
    const T& front() const { return slots[head]; }
    T& back() { return slots[slot(count - 1)]; }
    const T& back() const { return slots[slot(count - 1)]; }
    // The value `offset` places behind the front; `offset` must be below size().
    const T& operator[](std::size_t offset) const { return slots[slot(offset)]; }

    void push_back(T value) {
        if (count == capacity) {
            grow();
        }
        new (slots + slot(count)) T(std::move(value));
        ++count;
    }

    void pop_front() {
        slots[head].~T();
        head = slot(1);
        --count;
        afterRemoval();
    }

    void pop_back() {
        slots[slot(count - 1)].~T();
        --count;
        afterRemoval();
    }

    void clear() { release(); }

    void swap(RingQueue& other) noexcept {
        std::swap(slots, other.slots);
        std::swap(capacity, other.capacity);
        std::swap(head, other.head);
        std::swap(count, other.count);
    }

private:
    static constexpr std::size_t firstSlots = 4;
    static constexpr std::size_t keptSlots = 16;

    // Capacities are powers of two, so that wrapping is a mask.
    std::size_t slot(std::size_t offset) const { return (head + offset) & (capacity - 1); }

    void grow() {
        const std::size_t larger = capacity == 0 ? firstSlots : capacity * 2;
        std::allocator<T> allocator;
        T* ring = allocator.allocate(larger);
        for (std::size_t index = 0; index != count; ++index) {
            T& value = slots[slot(index)];
            new (ring + index) T(std::move(value));
            value.~T();
        }
        if (slots != nullptr) {
            allocator.deallocate(slots, capacity);
        }
        slots = ring;
        capacity = larger;
        head = 0;
    }

    void afterRemoval() {
        if (count != 0) {
            return;
        }
        head = 0;
        if (capacity > keptSlots) {
            release();
        }
    }

    // Destroys what is left and returns the ring.
    void release() {
        for (std::size_t index = 0; index != count; ++index) {
            slots[slot(index)].~T();
        }
        if (slots != nullptr) {
            std::allocator<T>().deallocate(slots, capacity);
        }
        slots = nullptr;
        capacity = 0;
        head = 0;
        count = 0;
    }

    T* slots = nullptr;
    std::size_t capacity = 0;
    std::size_t head = 0;
    std::size_t count = 0;
};

}  // namespace korvane::common
