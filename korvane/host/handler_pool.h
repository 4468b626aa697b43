#pragma once

// Blocks for the operations of a connection's reads and writes, kept by each I/O
// thread for the next operation of their size. Asio keeps one freed block per thread
// and hands every other one back to malloc; a long-poll request and response starts
// a dozen operations (Beast's read and write states, the socket's, the hand-overs
// from other threads), so most of them went through malloc and free. A handler wrapped by
// pooledHandler() is what sends Asio, and Beast's composed operations that complete
// it, to this pool; an allocator_type of ExactAllocator sends them past every
// recycled block, to operator new. The header fields of the server's requests and
// responses (one block a field) come from the pool as well.
//
// Threading: each thread has a pool of its own (thread-local, no lock); a block freed
// on another thread than the one that took it joins that other thread's pool. Each
// size keeps at most 32 to 128 blocks; past that, and for large blocks, it is plain
// operator new and delete.

#include <cstddef>
#include <new>
#include <utility>

namespace korvane::host {

void* takePooledBlock(std::size_t bytes);
void givePooledBlock(void* block, std::size_t bytes) noexcept;

inline void* newBlock(std::size_t bytes) { return ::operator new(bytes); }
inline void deleteBlock(void* block, std::size_t) noexcept { ::operator delete(block); }

// An allocator for Asio's operation states that takes its blocks from `take` and gives
// them back to `give`.
template <class T, void* (*take)(std::size_t), void (*give)(void*, std::size_t) noexcept>
struct BlockAllocator {
    using value_type = T;
    template <class U>
    struct rebind {
        using other = BlockAllocator<U, take, give>;
    };
    BlockAllocator() noexcept = default;
    template <class U>
    BlockAllocator(const BlockAllocator<U, take, give>&) noexcept {}
    T* allocate(std::size_t count) { return static_cast<T*>(take(count * sizeof(T))); }
    void deallocate(T* block, std::size_t count) noexcept { give(block, count * sizeof(T)); }
    template <class U>
    bool operator==(const BlockAllocator<U, take, give>&) const noexcept {
        return true;
    }
    template <class U>
    bool operator!=(const BlockAllocator<U, take, give>&) const noexcept {
        return false;
    }
};

template <class T>
using PooledAllocator = BlockAllocator<T, takePooledBlock, givePooledBlock>;
// To its own size with operator new: for an operation that may wait as long as its
// connection lives, which must not keep a larger recycled block.
template <class T>
using ExactAllocator = BlockAllocator<T, newBlock, deleteBlock>;

// `Function` with the pool as its associated allocator; everything else as it is.
template <class Function>
struct PooledHandler {
    using allocator_type = PooledAllocator<void>;
    allocator_type get_allocator() const noexcept { return {}; }
    template <class... Args>
    void operator()(Args&&... args) {
        function(std::forward<Args>(args)...);
    }
    Function function;
};

template <class Function>
PooledHandler<Function> pooledHandler(Function function) {
    return {std::move(function)};
}

}  // namespace korvane::host
