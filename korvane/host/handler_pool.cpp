#include "korvane/host/handler_pool.h"

#include <array>
#include <limits>
#include <new>

namespace korvane::host {
namespace {

// Sizes 128, 256, ... 2048 bytes; an operation's state is rounded up to the next.
constexpr std::size_t smallestClassBytes = 128;  // 1 << 7
constexpr std::size_t classCount = 5;
// The two small classes hold header fields besides operation states: a long-poll
// connect frees and takes several in a row, and a fan-out ends many connects at once.
// At most 160 KB a thread stay here.
constexpr std::array<std::size_t, classCount> blocksPerClass = {128, 128, 32, 32, 32};

constexpr std::size_t mostBlocksPerClass() {
    std::size_t most = 0;
    for (std::size_t blocks : blocksPerClass) {
        most = blocks > most ? blocks : most;
    }
    return most;
}

// 0 for up to 128 bytes, 1 for up to 256, and so on.
std::size_t classOf(std::size_t bytes) {
    if (bytes <= smallestClassBytes) {
        return 0;
    }
    const auto bits = static_cast<std::size_t>(std::numeric_limits<unsigned long>::digits - __builtin_clzl(bytes - 1));
    return bits - 7;
}

std::size_t classBytes(std::size_t index) { return smallestClassBytes << index; }

// A thread's free blocks. Trivially destructible, so that it stays usable while the
// thread's other thread-locals end; `closed` then sends every block to operator delete.
struct FreeLists {
    struct List {
        std::array<void*, mostBlocksPerClass()> blocks;
        std::size_t count;
    };
    std::array<List, classCount> lists;
    bool reaperArmed;
    bool closed;
};

thread_local FreeLists freeLists{};

// Hands the thread's free blocks back to operator delete when the thread ends. Armed
// by the first block the thread keeps.
struct Reaper {
    void arm() { armed = true; }
    ~Reaper() {
        if (!armed) {
            return;
        }
        freeLists.closed = true;
        for (FreeLists::List& list : freeLists.lists) {
            for (std::size_t i = 0; i < list.count; ++i) {
                ::operator delete(list.blocks[i]);
            }
            list.count = 0;
        }
    }
    bool armed = false;
};

thread_local Reaper reaper;

}  // namespace

void* takePooledBlock(std::size_t bytes) {
    const std::size_t index = classOf(bytes);
    if (index >= classCount) {
        return ::operator new(bytes);
    }
    FreeLists::List& list = freeLists.lists[index];
    if (list.count != 0) {
        return list.blocks[--list.count];
    }
    return ::operator new(classBytes(index));
}

void givePooledBlock(void* block, std::size_t bytes) noexcept {
    const std::size_t index = classOf(bytes);
    if (index < classCount && !freeLists.closed) {
        FreeLists::List& list = freeLists.lists[index];
        if (list.count < blocksPerClass[index]) {
            if (!freeLists.reaperArmed) {
                reaper.arm();
                freeLists.reaperArmed = true;
            }
            list.blocks[list.count++] = block;
            return;
        }
    }
    ::operator delete(block);
}

}  // namespace korvane::host
