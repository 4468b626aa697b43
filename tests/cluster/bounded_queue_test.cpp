#include "korvane/cluster/bounded_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

namespace korvane::cluster {
namespace {

using Queue = BoundedQueue<std::unique_ptr<int>>;
using Push = Queue::Push;

// Runs `producer(p)` on `count` threads and joins them.
void runProducers(int count, const std::function<void(int)>& producer) {
    std::vector<std::thread> threads;
    for (int p = 0; p < count; ++p) {
        threads.emplace_back(producer, p);
    }
    for (auto& thread : threads) {
        thread.join();
    }
}

TEST(BoundedQueue, KeepsOrderDropsPastCapacityCountsTheDropsAndClosesWithoutCounting) {
    Queue queue(3);
    const Push expected[] = {Push::Queued, Push::Queued, Push::Queued, Push::Dropped, Push::Dropped};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(queue.push(std::make_unique<int>(i)), expected[i]) << i;
    }
    EXPECT_EQ(queue.size(), 3u);
    EXPECT_EQ(queue.takeDropped(), 2u);
    EXPECT_EQ(queue.takeDropped(), 0u) << "the count starts over once taken";
    EXPECT_EQ(queue.totalDropped(), 2u) << "the total does not";
    EXPECT_EQ(**queue.pop(), 0);
    EXPECT_EQ(queue.push(std::make_unique<int>(5)), Push::Queued) << "room again after a pop";
    EXPECT_EQ(**queue.pop(), 1);
    EXPECT_EQ(**queue.pop(), 2);
    EXPECT_EQ(**queue.pop(), 5) << "the dropped items never come out";
    queue.push(std::make_unique<int>(6));
    queue.close();
    EXPECT_FALSE(queue.pop().has_value()) << "items left behind are not handed out";
    EXPECT_EQ(queue.push(std::make_unique<int>(7)), Push::Closed);
    EXPECT_EQ(queue.takeDropped(), 0u);
}

TEST(BoundedQueueConcurrency, EveryProducersOrderSurvivesAndNothingIsLostBelowCapacity) {
    constexpr int producers = 4;
    constexpr int perProducer = 5000;
    BoundedQueue<std::pair<int, int>> queue(producers * perProducer);
    std::vector<int> next(producers, 0);
    int received = 0;
    bool inOrder = true;
    std::thread consumer([&] {
        while (received < producers * perProducer) {
            auto item = queue.pop();
            inOrder = inOrder && item->second == next[item->first]++;
            ++received;
        }
    });
    runProducers(producers, [&](int p) {
        for (int i = 0; i < perProducer; ++i) {
            queue.push({p, i});
        }
    });
    consumer.join();
    EXPECT_TRUE(inOrder);
    EXPECT_EQ(queue.takeDropped(), 0u);
}

TEST(BoundedQueueConcurrency, AFullQueueNeverHoldsUpProducersAndEveryItemIsEitherTakenOrCounted) {
    constexpr int producers = 3;
    constexpr int perProducer = 20000;
    constexpr int endMark = -1;
    BoundedQueue<int> queue(16);
    std::atomic<int> refused{0};
    int taken = 0;
    std::thread consumer([&] {
        while (*queue.pop() != endMark) {
            ++taken;
        }
    });
    runProducers(producers, [&](int) {
        for (int i = 0; i < perProducer; ++i) {
            if (queue.push(int(i)) == BoundedQueue<int>::Push::Dropped) {
                refused.fetch_add(1, std::memory_order_relaxed);
            }
        }
    });
    // The consumer keeps draining, so the end mark gets in after a few refusals at most.
    int refusedMarks = 0;
    while (queue.push(int(endMark)) == BoundedQueue<int>::Push::Dropped) {
        ++refusedMarks;
        std::this_thread::yield();
    }
    consumer.join();
    const int dropped = static_cast<int>(queue.takeDropped()) - refusedMarks;
    EXPECT_EQ(dropped, refused.load());
    EXPECT_EQ(taken + dropped, producers * perProducer);
}

TEST(BoundedQueueConcurrency, CloseWakesAConsumerBlockedOnAnEmptyQueue) {
    BoundedQueue<int> queue(4);
    std::thread consumer([&] { EXPECT_FALSE(queue.pop().has_value()); });
    queue.close();
    consumer.join();
}

}  // namespace
}  // namespace korvane::cluster
