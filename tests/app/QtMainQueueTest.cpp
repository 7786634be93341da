#include "app/QtMainQueue.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTest>
#include <QThread>
#include <atomic>
#include <map>
#include <thread>
#include <vector>

namespace pointlane {
namespace {

class QtMainQueueTest : public ::testing::Test {
  protected:
    int argc_ = 1;
    char name_[16] = "app_tests";
    char* argv_[2] = {name_, nullptr};
    QCoreApplication app_{argc_, argv_};
};

// Not a "ConcurrencyTest": Qt's event queue locks with futexes the thread sanitizer cannot see
// in the uninstrumented Qt library, so it would only report Qt's own bookkeeping.
TEST_F(QtMainQueueTest, BlocksFromOtherThreadsRunOnTheMainThreadInTheirOrder) {
    auto queue = std::make_shared<QtMainQueue>();
    QThread* mainThread = QThread::currentThread();
    constexpr int kThreads = 4;
    constexpr int kBlocks = 200;
    std::atomic<int> ran{0};
    std::atomic<int> offThread{0};
    std::map<int, std::vector<int>> order;  // only touched on the main thread

    std::vector<std::thread> producers;
    for (int t = 0; t < kThreads; ++t) {
        producers.emplace_back([&, t] {
            for (int i = 0; i < kBlocks; ++i) {
                queue->async([&, t, i] {
                    if (QThread::currentThread() != mainThread) {
                        ++offThread;
                    }
                    order[t].push_back(i);
                    ++ran;
                });
            }
        });
    }
    for (auto& producer : producers) {
        producer.join();
    }
    // Posting never runs a block on the spot, not even from the main thread.
    bool ranAtOnce = false;
    queue->async([&] { ranAtOnce = true; });
    EXPECT_FALSE(ranAtOnce);

    EXPECT_TRUE(QTest::qWaitFor([&] { return ran == kThreads * kBlocks && ranAtOnce; }, 5000));
    EXPECT_EQ(offThread, 0);
    for (int t = 0; t < kThreads; ++t) {
        ASSERT_EQ(order[t].size(), static_cast<std::size_t>(kBlocks));
        for (int i = 0; i < kBlocks; ++i) {
            EXPECT_EQ(order[t][i], i) << "thread " << t;
        }
    }
}

TEST_F(QtMainQueueTest, AfterRunsOnTheMainThreadNoEarlierThanTheDelay) {
    auto queue = std::make_shared<QtMainQueue>();
    QThread* mainThread = QThread::currentThread();
    MainQueue::install(queue);

    QElapsedTimer clock;
    clock.start();
    qint64 fromMain = -1;
    qint64 fromWorker = -1;
    qint64 shortOne = -1;
    bool workerBlockOnMain = false;
    pointlane::after(0.1, [&] { fromMain = clock.nsecsElapsed(); });
    pointlane::after(0.02, [&] { shortOne = clock.nsecsElapsed(); });
    // Scheduled from a thread that ends at once: the timer must not belong to it.
    std::thread([&] {
        pointlane::after(0.1, [&] {
            fromWorker = clock.nsecsElapsed();
            workerBlockOnMain = QThread::currentThread() == mainThread;
        });
    }).join();

    EXPECT_TRUE(QTest::qWaitFor([&] { return fromMain >= 0 && fromWorker >= 0; }, 5000));
    MainQueue::install(nullptr);
    constexpr qint64 kDelay = 99'000'000;  // 0.1 s, less a rounding millisecond
    EXPECT_GE(fromMain, kDelay);
    EXPECT_GE(fromWorker, kDelay);
    EXPECT_TRUE(workerBlockOnMain);
    EXPECT_GE(shortOne, 19'000'000);
    EXPECT_LT(shortOne, fromMain);
}

TEST_F(QtMainQueueTest, BlocksStillQueuedWhenTheQueueGoesAreDropped) {
    std::atomic<int> ran{0};
    {
        QtMainQueue queue;
        queue.async([&] { ++ran; });
        queue.after(0.01, [&] { ++ran; });
        // One pass of the loop starts the delayed block's timer; then the queue goes.
        QCoreApplication::processEvents();
        EXPECT_EQ(ran, 1);
        queue.async([&] { ++ran; });
    }
    QTest::qWait(50);
    EXPECT_EQ(ran, 1);
}

}  // namespace
}  // namespace pointlane
