#include "korvane/frame/thread_counters.h"

#include <algorithm>
#include <array>
#include <stdexcept>

namespace korvane::common {

namespace {

constexpr std::size_t maxSets = 8;

// The blocks of the calling thread, one per set; its destructor runs at the thread's exit.
struct ThreadBlocks {
    std::array<ThreadCounters::Block*, maxSets> blocks{};
    std::array<ThreadCounters*, maxSets> owners{};

    ~ThreadBlocks() {
        for (std::size_t set = 0; set < maxSets; ++set) {
            if (blocks[set] != nullptr) {
                owners[set]->retire(blocks[set]);
                // A later thread_local destructor that counts registers a fresh block.
                blocks[set] = nullptr;
            }
        }
    }
};

thread_local ThreadBlocks threadBlocks;

std::mutex setsMutex;
std::size_t setCount = 0;
// Every set made; they live as long as the process (threads that exit after main returned still
// fold their blocks into them), and are reachable from here for a leak checker's sake.
std::array<ThreadCounters*, maxSets> sets{};

}  // namespace

ThreadCounters& ThreadCounters::process(std::size_t sums, std::size_t highWaterMarks) {
    std::lock_guard<std::mutex> guard(setsMutex);
    if (setCount == maxSets) {
        throw std::logic_error("Too many sets of thread counters");
    }
    ThreadCounters* made = new ThreadCounters(sums, highWaterMarks, setCount);
    sets[setCount++] = made;
    return *made;
}

ThreadCounters::ThreadCounters(std::size_t sums, std::size_t highWaterMarks, std::size_t index)
    : sums(sums), slots(sums + highWaterMarks), index(index), retired(slots) {}

ThreadCounters::Block& ThreadCounters::threadBlock() {
    Block* block = threadBlocks.blocks[index];
    return block != nullptr ? *block : registerThread();
}

ThreadCounters::Block& ThreadCounters::registerThread() {
    auto block = std::make_unique<Block>(slots);
    Block& registered = *block;
    {
        std::lock_guard<std::mutex> guard(mutex);
        blocks.push_back(std::move(block));
    }
    threadBlocks.blocks[index] = &registered;
    threadBlocks.owners[index] = this;
    return registered;
}

void ThreadCounters::retire(Block* block) {
    std::lock_guard<std::mutex> guard(mutex);
    fold(*block, retired);
    blocks.erase(std::find_if(blocks.begin(), blocks.end(),
                              [block](const std::unique_ptr<Block>& each) { return each.get() == block; }));
}

std::vector<std::uint64_t> ThreadCounters::totals() const {
    std::lock_guard<std::mutex> guard(mutex);
    std::vector<std::uint64_t> result = retired;
    for (const std::unique_ptr<Block>& block : blocks) {
        fold(*block, result);
    }
    return result;
}

void ThreadCounters::fold(const Block& block, std::vector<std::uint64_t>& into) const {
    for (std::size_t slot = 0; slot < slots; ++slot) {
        const std::uint64_t value = block.cells[slot].load(std::memory_order_relaxed);
        into[slot] = slot < sums ? into[slot] + value : std::max(into[slot], value);
    }
}

}  // namespace korvane::common
