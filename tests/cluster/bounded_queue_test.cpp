#include "korvane/cluster/bounded_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace korvane::cluster {
namespace {

TEST(BoundedQueue, KeepsOrderDropsPastCapacityCountsTheDropsAndClosesWithoutCounting) {
    using Queue = BoundedQueue<std::unique_ptr<int>>;
    using Push = Queue::Push;
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

// Below capacity nothing is lost; a full queue never holds up a producer and counts what it refuses.
TEST(BoundedQueueConcurrency, EveryProducersOrderSurvivesAndEveryItemIsEitherTakenOrCounted) {
    constexpr int producers = 4, perProducer = 5000, endMark = -1;
    using Queue = BoundedQueue<std::pair<int, int>>;
    for (const std::size_t capacity : {std::size_t(producers * perProducer), std::size_t(16)}) {
        SCOPED_TRACE(capacity);
        Queue queue(capacity);
        std::vector<int> last(producers, -1);
        std::atomic<int> refused{0};
        int taken = 0;
        bool inOrder = true;
        std::thread consumer([&] {
            for (auto item = queue.pop(); item && item->first != endMark; item = queue.pop(), ++taken) {
                inOrder = inOrder && item->second > last[item->first];
                last[item->first] = item->second;
            }
        });
        std::vector<std::thread> threads;
        for (int p = 0; p < producers; ++p) {
            threads.emplace_back([&, p] {
                for (int i = 0; i < perProducer; ++i) {
                    refused += queue.push({p, i}) == Queue::Push::Dropped;
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
        // The consumer keeps draining, so the end mark gets in after a few refusals at most.
        int refusedMarks = 0;
        for (; queue.push({endMark, 0}) == Queue::Push::Dropped; ++refusedMarks) {
            std::this_thread::yield();
        }
        consumer.join();
        const int dropped = static_cast<int>(queue.takeDropped()) - refusedMarks;
        EXPECT_TRUE(inOrder);
        EXPECT_EQ(dropped, refused.load());
        EXPECT_EQ(taken + dropped, producers * perProducer);
        EXPECT_TRUE(dropped == 0 || capacity < producers * perProducer);
    }
}

TEST(BoundedQueueConcurrency, CloseWakesAConsumerBlockedOnAnEmptyQueue) {
    BoundedQueue<int> queue(4);
    std::thread consumer([&] { EXPECT_FALSE(queue.pop().has_value()); });
    queue.close();
    consumer.join();
}

}  // namespace
}  // namespace korvane::cluster
