#include "support/WorkQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "TestKit.h"

namespace pointlane {
namespace {

// A queue whose worker is held in its first block until open() is called.
struct HeldQueue {
    explicit HeldQueue(std::size_t capacity) : queue("held", capacity) {
        queue.setBatchRunner([this](std::vector<WorkQueue::Block>& batch) {
            {
                std::lock_guard lock(mutex);
                batches.push_back(batch.size());
            }
            for (auto& block : batch) {
                queue.runReporting(block);
            }
        });
        queue.async([this] { gate.get_future().wait(); });
        EXPECT_TRUE(testkit::waitUntil([&] { return batchCount() == 1; }));
    }
    ~HeldQueue() { open(); }
    void open() {
        if (!opened.exchange(true)) {
            gate.set_value();
        }
    }
    std::size_t batchCount() {
        std::lock_guard lock(mutex);
        return batches.size();
    }

    std::promise<void> gate;
    std::atomic<bool> opened{false};
    std::mutex mutex;
    std::vector<std::size_t> batches;  // guarded by mutex
    WorkQueue queue;                   // last: its worker stops before the rest goes
};

TEST(WorkQueueConcurrencyTest, AFullQueueHoldsItsSubmitterUntilThereIsRoom) {
    HeldQueue held(4);
    std::atomic<int> ran{0};
    for (int i = 0; i < 4; ++i) {
        held.queue.async([&] { ++ran; });  // room for these
    }
    std::atomic<bool> submitted{false};
    std::thread flood([&] {
        held.queue.async([&] { ++ran; });
        submitted = true;
    });
    // The fifth waits for as long as the worker is held.
    EXPECT_FALSE(
        testkit::waitUntil([&] { return submitted.load(); }, std::chrono::milliseconds(200)));
    held.open();
    EXPECT_TRUE(testkit::waitUntil([&] { return submitted.load(); }));
    flood.join();
    held.queue.drain();
    EXPECT_EQ(ran.load(), 5);
    // Everything that waited together ran as one batch.
    std::lock_guard lock(held.mutex);
    ASSERT_GE(held.batches.size(), 2u);
    EXPECT_EQ(held.batches[1], 4u);
}

TEST(WorkQueueConcurrencyTest, TheWorkerItselfIsNeverHeldByTheBound) {
    WorkQueue queue("self", 2);
    std::atomic<int> ran{0};
    queue.async([&] {
        for (int i = 0; i < 10; ++i) {
            queue.async([&] { ++ran; });  // past the bound, from the worker: no wait
        }
    });
    queue.drain();
    EXPECT_TRUE(testkit::waitUntil([&] { return ran.load() == 10; }));
}

TEST(WorkQueueConcurrencyTest, DrainReturnsOnlyOnceTheLastBlockSubmittedHasRun) {
    WorkQueue queue("drain");
    std::atomic<int> ran{0};
    for (int round = 1; round <= 3; ++round) {
        // A slow block alone in its batch: drain() must not count it done before it is.
        queue.async([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            ++ran;
        });
        queue.drain();
        EXPECT_EQ(ran.load(), round);
    }
}

TEST(WorkQueueConcurrencyTest, ManySubmittersThroughASmallQueueLoseNothingAndKeepTheirOrder) {
    WorkQueue queue("many", 3);
    constexpr int kThreads = 4;
    constexpr int kEach = 500;
    std::vector<std::vector<int>> seen(kThreads);  // touched on the worker only
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                queue.async([&, t, i] { seen[t].push_back(i); });
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    queue.drain();
    for (int t = 0; t < kThreads; ++t) {
        ASSERT_EQ(seen[t].size(), static_cast<std::size_t>(kEach));
        for (int i = 0; i < kEach; ++i) {
            EXPECT_EQ(seen[t][i], i);
        }
    }
}

}  // namespace
}  // namespace pointlane
