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

namespace korvane::common {

template <typename T>
class RingQueue {
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

    bool empty() const { return count_ == 0; }
    std::size_t size() const { return count_; }

    // The oldest and the newest value; the queue must not be empty.
    T& front() { return slots_[head_]; }
    const T& front() const { return slots_[head_]; }
    T& back() { return slots_[slot(count_ - 1)]; }
    const T& back() const { return slots_[slot(count_ - 1)]; }

    void push_back(T value) {
        if (count_ == capacity_) {
            grow();
        }
        new (slots_ + slot(count_)) T(std::move(value));
        ++count_;
    }

    void pop_front() {
        slots_[head_].~T();
        head_ = slot(1);
        --count_;
        afterRemoval();
    }

    void pop_back() {
        slots_[slot(count_ - 1)].~T();
        --count_;
        afterRemoval();
    }

    void clear() { release(); }

    void swap(RingQueue& other) noexcept {
        std::swap(slots_, other.slots_);
        std::swap(capacity_, other.capacity_);
        std::swap(head_, other.head_);
        std::swap(count_, other.count_);
    }

private:
    static constexpr std::size_t firstSlots = 4;
    static constexpr std::size_t keptSlots = 16;

    // Capacities are powers of two, so that wrapping is a mask.
    std::size_t slot(std::size_t offset) const { return (head_ + offset) & (capacity_ - 1); }

    void grow() {
        const std::size_t capacity = capacity_ == 0 ? firstSlots : capacity_ * 2;
        std::allocator<T> allocator;
        T* slots = allocator.allocate(capacity);
        for (std::size_t index = 0; index != count_; ++index) {
            T& value = slots_[slot(index)];
            new (slots + index) T(std::move(value));
            value.~T();
        }
        if (slots_ != nullptr) {
            allocator.deallocate(slots_, capacity_);
        }
        slots_ = slots;
        capacity_ = capacity;
        head_ = 0;
    }

    void afterRemoval() {
        if (count_ != 0) {
            return;
        }
        head_ = 0;
        if (capacity_ > keptSlots) {
            release();
        }
    }

    // Destroys what is left and returns the ring.
    void release() {
        for (std::size_t index = 0; index != count_; ++index) {
            slots_[slot(index)].~T();
        }
        if (slots_ != nullptr) {
            std::allocator<T>().deallocate(slots_, capacity_);
        }
        slots_ = nullptr;
        capacity_ = 0;
        head_ = 0;
        count_ = 0;
    }

    T* slots_ = nullptr;
    std::size_t capacity_ = 0;
    std::size_t head_ = 0;
    std::size_t count_ = 0;
};

}  // namespace korvane::common
