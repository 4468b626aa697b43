#include "korvane/frame/ring_queue.h"

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <random>

namespace korvane::common {
namespace {

// A value that counts the live instances, so that a value destroyed twice or never shows.
struct Counted {
    explicit Counted(int value) : value(std::make_unique<int>(value)) { ++live; }
    Counted(Counted&& other) noexcept : value(std::move(other.value)) { ++live; }
    Counted& operator=(Counted&& other) noexcept = default;
    ~Counted() { --live; }
    std::unique_ptr<int> value;
    static inline int live = 0;
};

// Random pushes and pops from both ends in phases of filling and of draining, so that the
// ring wraps, grows while wrapped, drains and is released; compared step by step with std::deque.
TEST(RingQueueTest, BehavesAsADequeAtBothEndsAndKeepsEveryValueOnce) {
    std::mt19937 random(7);
    RingQueue<Counted> queue;
    std::deque<int> model;
    for (int step = 0, next = 0; step < 20000; ++step) {
        const unsigned choice = random() % 10;
        if (model.empty() || choice < ((step / 500) % 2 == 0 ? 6u : 3u)) {
            queue.push_back(Counted(next));
            model.push_back(next++);
        } else if (choice < 8) {
            ASSERT_EQ(*queue.front().value, model.front()) << "step " << step;
            queue.pop_front(), model.pop_front();
        } else {
            ASSERT_EQ(*queue.back().value, model.back()) << "step " << step;
            queue.pop_back(), model.pop_back();
        }
        ASSERT_EQ(queue.size(), model.size()) << "step " << step;
        ASSERT_EQ(Counted::live, static_cast<int>(model.size())) << "step " << step;
    }
    for (; !model.empty(); queue.pop_front(), model.pop_front()) {
        ASSERT_EQ(*queue.front().value, model.front());
    }
    EXPECT_EQ(Counted::live, 0);
}

}  // namespace
}  // namespace korvane::common
