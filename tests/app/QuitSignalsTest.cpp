#include "app/QuitSignals.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QTest>
#include <QThread>
#include <atomic>
#include <thread>
#include <vector>

namespace pointlane {
namespace {

class QuitSignalsTest : public ::testing::Test {
  protected:
    int argc_ = 1;
    char name_[16] = "app_tests";
    char* argv_[2] = {name_, nullptr};
    QCoreApplication app_{argc_, argv_};
};

TEST_F(QuitSignalsTest, SigtermAndSigintCallBackOnTheMainThread) {
    QThread* mainThread = QThread::currentThread();
    std::vector<int> received;
    bool allOnMain = true;
    QuitSignals quit([&](int signal) {
        received.push_back(signal);
        allOnMain = allOnMain && QThread::currentThread() == mainThread;
    });
    ASSERT_TRUE(quit.isInstalled());

    raise(SIGTERM);
    // The handler only notes the signal; the callback waits for the event loop.
    EXPECT_TRUE(received.empty());
    EXPECT_TRUE(QTest::qWaitFor([&] { return received.size() == 1; }, 5000));

    // A signal sent to the process may land on any thread.
    std::thread([] { kill(getpid(), SIGINT); }).join();
    EXPECT_TRUE(QTest::qWaitFor([&] { return received.size() == 2; }, 5000));
    EXPECT_EQ(received, (std::vector<int>{SIGTERM, SIGINT}));
    EXPECT_TRUE(allOnMain);
}

std::atomic<int> earlierHandlerCalls{0};
void earlierHandler(int) {
    ++earlierHandlerCalls;
}

TEST_F(QuitSignalsTest, OneInstanceAtATimeAndEarlierHandlersComeBack) {
    earlierHandlerCalls = 0;
    struct sigaction earlier = {};
    earlier.sa_handler = earlierHandler;
    sigemptyset(&earlier.sa_mask);
    struct sigaction original;
    ASSERT_EQ(sigaction(SIGTERM, &earlier, &original), 0);

    int calls = 0;
    {
        QuitSignals first([&](int) { ++calls; });
        QuitSignals second([&](int) { calls += 100; });
        EXPECT_TRUE(first.isInstalled());
        EXPECT_FALSE(second.isInstalled());
        raise(SIGTERM);
        EXPECT_TRUE(QTest::qWaitFor([&] { return calls > 0; }, 5000));
        EXPECT_EQ(calls, 1);
        EXPECT_EQ(earlierHandlerCalls, 0);
    }
    raise(SIGTERM);
    EXPECT_EQ(earlierHandlerCalls, 1);

    // With the first one gone, a new instance can take over.
    {
        QuitSignals again([&](int) { ++calls; });
        EXPECT_TRUE(again.isInstalled());
    }
    sigaction(SIGTERM, &original, nullptr);
}

}  // namespace
}  // namespace pointlane
