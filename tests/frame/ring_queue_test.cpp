#include "korvane/frame/ring_queue.h"

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <random>
#include <string>
#include <utility>

namespace korvane::common {
namespace {

// A value that counts the live instances, so that a value destroyed twice or never shows.
class Counted {
public:
    explicit Counted(int value) : value_(std::make_unique<int>(value)) { ++live; }
    Counted(Counted&& other) noexcept : value_(std::move(other.value_)) { ++live; }
    Counted& operator=(Counted&& other) noexcept {
        value_ = std::move(other.value_);
        return *this;
    }
    ~Counted() { --live; }

    int value() const { return *value_; }

    static inline int live = 0;

private:
    std::unique_ptr<int> value_;
};

// The queue's contents, front first; empties it.
std::deque<int> drain(RingQueue<Counted>& queue) {
    std::deque<int> values;
    for (; !queue.empty(); queue.pop_front()) {
        values.push_back(queue.front().value());
    }
    return values;
}

// Random pushes and pops from both ends, wrapping the ring and growing it while it is
// wrapped, compared step by step with std::deque.
TEST(RingQueueTest, BehavesAsADequeAtBothEnds) {
    std::mt19937 random(7);
    {
        RingQueue<Counted> queue;
        std::deque<int> model;
        int next = 0;
        for (int step = 0; step < 20000; ++step) {
            const unsigned choice = random() % 10;
            // Phases of filling and of draining, so that the ring grows past its kept size,
            // drains, and is released and built again.
            const bool filling = (step / 500) % 2 == 0;
            if (model.empty() || choice < (filling ? 6u : 3u)) {
                queue.push_back(Counted(next));
                model.push_back(next++);
            } else if (choice < 8) {
                ASSERT_EQ(queue.front().value(), model.front()) << "step " << step;
                queue.pop_front();
                model.pop_front();
            } else {
                ASSERT_EQ(queue.back().value(), model.back()) << "step " << step;
                queue.pop_back();
                model.pop_back();
            }
            ASSERT_EQ(queue.size(), model.size()) << "step " << step;
            ASSERT_EQ(queue.empty(), model.empty());
            ASSERT_EQ(Counted::live, static_cast<int>(model.size())) << "step " << step;
        }
        EXPECT_EQ(drain(queue), model);
        EXPECT_EQ(Counted::live, 0);
        for (int value = 0; value < 40; ++value) {
            queue.push_back(Counted(value));
        }
    }
    // The destructor destroys the values left in it.
    EXPECT_EQ(Counted::live, 0);
}

TEST(RingQueueTest, SwapMoveAndClearKeepEveryValueOnce) {
    RingQueue<Counted> first;
    RingQueue<Counted> second;
    for (int value = 0; value < 6; ++value) {
        first.push_back(Counted(value));
    }
    // Wrapped: the front is in the middle of the ring.
    first.pop_front();
    first.pop_front();
    first.push_back(Counted(6));
    first.push_back(Counted(7));
    second.push_back(Counted(100));

    first.swap(second);
    EXPECT_EQ(drain(first), (std::deque<int>{100}));
    RingQueue<Counted> moved(std::move(second));
    EXPECT_TRUE(second.empty());
    EXPECT_EQ(moved.front().value(), 2);
    EXPECT_EQ(moved.back().value(), 7);

    first = std::move(moved);
    EXPECT_EQ(first.size(), 6u);
    EXPECT_EQ(Counted::live, 6);
    first.clear();
    EXPECT_TRUE(first.empty());
    EXPECT_EQ(Counted::live, 0);
    first.push_back(Counted(8));
    EXPECT_EQ(drain(first), (std::deque<int>{8}));
}

}  // namespace
}  // namespace korvane::common
