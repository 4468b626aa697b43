#pragma once

// Event counters that cost the counting thread no lock and no shared cache line: each
// thread writes a block of its own (a relaxed load and a relaxed store, never a
// read-modify-write), and a reader sums the blocks. A thread's block is registered on
// its first count; when the thread exits, its block is folded into `retired`, so that
// no count is lost.
//
// Slots [0, sums) are totals; the slots after them are high-water marks, which keep the
// largest value raised on any thread.
//
// Threading: add() and raise() run on any thread and touch only that thread's block.
// `mutex` guards `blocks` and `retired` and is taken only by a thread's first count, by
// its exit and by totals(). A ThreadCounters must outlive every thread that counted on
// it: make it once for the process (see process()) and never destroy it.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "korvane/export.h"

namespace korvane::common {

class KORVANE_EXPORT ThreadCounters {
public:
    // One thread's slots; written by that thread only, read by totals().
    struct Block {
        explicit Block(std::size_t slots) : cells(new std::atomic<std::uint64_t>[slots]()) {}
        std::unique_ptr<std::atomic<std::uint64_t>[]> cells;
    };

    // A set that lives as long as the process; at most a handful may be made.
    static ThreadCounters& process(std::size_t sums, std::size_t highWaterMarks = 0);

    void add(std::size_t slot, std::uint64_t n = 1) {
        std::atomic<std::uint64_t>& cell = threadBlock().cells[slot];
        cell.store(cell.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
    }
    void raise(std::size_t slot, std::uint64_t value) {
        std::atomic<std::uint64_t>& cell = threadBlock().cells[slot];
        if (value > cell.load(std::memory_order_relaxed)) {
            cell.store(value, std::memory_order_relaxed);
        }
    }
    // Every slot over every thread, those that ended included.
    std::vector<std::uint64_t> totals() const;

    // Folds an ending thread's block into `retired`; called by the thread's exit.
    void retire(Block* block);

private:
    ThreadCounters(std::size_t sums, std::size_t highWaterMarks, std::size_t index);
    Block& threadBlock();
    Block& registerThread();
    void fold(const Block& block, std::vector<std::uint64_t>& into) const;

    const std::size_t sums;
    const std::size_t slots;
    // This set's place in each thread's table of blocks.
    const std::size_t index;
    mutable std::mutex mutex;
    std::vector<std::unique_ptr<Block>> blocks;
    std::vector<std::uint64_t> retired;
};

}  // namespace korvane::common
