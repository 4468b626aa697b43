#pragma once

// Blocks for the operations of a connection's reads and writes, kept by each I/O
// thread for the next operation of their size. Asio keeps one freed block per thread
// and hands every other one back to malloc; a long-poll request and response starts
// a dozen operations (Beast's read and write states, the socket's, the strand's hand-
// overs), so most of them went through malloc and free. A handler wrapped by
// pooledHandler() is what sends Asio, and Beast's composed operations that complete
// it, to this pool.
//
// Threading: each thread has a pool of its own (thread-local, no lock); a block freed
// on another thread than the one that took it joins that other thread's pool. Each
// size keeps at most a few dozen blocks; past that, and for large blocks, it is plain
// operator new and delete.

#include <cstddef>
#include <utility>

namespace korvane::host {

void* takePooledBlock(std::size_t bytes);
void givePooledBlock(void* block, std::size_t bytes) noexcept;

template <class T>
struct PooledAllocator {
    using value_type = T;
    PooledAllocator() noexcept = default;
    template <class U>
    PooledAllocator(const PooledAllocator<U>&) noexcept {}
    T* allocate(std::size_t count) { return static_cast<T*>(takePooledBlock(count * sizeof(T))); }
    void deallocate(T* block, std::size_t count) noexcept { givePooledBlock(block, count * sizeof(T)); }
    template <class U>
    bool operator==(const PooledAllocator<U>&) const noexcept {
        return true;
    }
    template <class U>
    bool operator!=(const PooledAllocator<U>&) const noexcept {
        return false;
    }
};

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
