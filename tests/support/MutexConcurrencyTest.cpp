#include <gtest/gtest.h>

#include <thread>

#include "support/Mutex.h"

namespace pointlane {
namespace {

TEST(MutexConcurrencyTest, TwoThreadsIncrementWithoutLosingUpdates) {
    Mutex mutex("test.counter");
    int counter = 0;  // guarded by mutex
    auto work = [&] {
        for (int i = 0; i < 10000; ++i) {
            mutex.sync([&] { ++counter; });
        }
    };
    std::thread first(work);
    std::thread second(work);
    first.join();
    second.join();
    mutex.sync();  // no block: locks, unlocks, returns
    int seen = 0;
    mutex.sync([&] { seen = counter; });
    EXPECT_EQ(seen, 20000);
}

}  // namespace
}  // namespace pointlane
