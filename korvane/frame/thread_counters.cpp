#include "korvane/frame/thread_counters.h"

#include <algorithm>
#include <array>
#include <stdexcept>

namespace korvane::common {

namespace {

constexpr std::size_t maxSets = 8;

// The blocks of the calling thread, one per set. Plain data with nothing to construct or
// destroy, so a count reaches it with one thread-relative load: no access function, and
// the initial-exec model spares the look-up a shared library's thread_local otherwise
// pays on every access (its few bytes fit the static TLS glibc keeps even for a library
// loaded late).
struct ThreadBlocks {
    ThreadCounters::Block* blocks[maxSets];
    ThreadCounters* owners[maxSets];
};

__attribute__((tls_model("initial-exec"))) thread_local ThreadBlocks threadBlocks{};

// Folds the thread's blocks into their sets at its exit; made by the thread's first count.
struct ThreadExit {
    ~ThreadExit() {
        for (std::size_t set = 0; set < maxSets; ++set) {
            if (threadBlocks.blocks[set] != nullptr) {
                threadBlocks.owners[set]->retire(threadBlocks.blocks[set]);
                // A later thread_local destructor that counts registers a fresh block.
                threadBlocks.blocks[set] = nullptr;
            }
        }
    }
};

thread_local ThreadExit threadExit;

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
    static_cast<void>(&threadExit);  // arms the fold at this thread's exit
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
