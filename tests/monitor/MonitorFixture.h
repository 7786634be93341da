#pragma once

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <chrono>
#include <functional>
#include <memory>

#include "QtTestMainQueue.h"
#include "TestKit.h"
#include "storage/SQLite.h"

namespace pointlane::testkit {

// A fresh database for each test and helpers that drive the Qt loop on the test (main) thread.
class MonitorFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        sqlm().setSchemaPath(POINTLANE_SOURCE_DIR "/resources/Schema.sql");
        ASSERT_TRUE(sqlm().create(dir.file("Pointlane.sqlite")));
        ASSERT_NE(queue(), nullptr);
    }

    void TearDown() override {
        sqlm().drain();
        settle();
        sqlm().close();
    }

    static QtTestMainQueue* queue() {
        return dynamic_cast<QtTestMainQueue*>(MainQueue::current().get());
    }

    // Runs the event loop until condition holds or the time-out passes.
    static bool pumpUntil(const std::function<bool()>& condition,
                          std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        return waitUntil(
            [&] {
                QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
                return condition();
            },
            timeout);
    }

    // Lets every database write submitted so far finish, then runs the main-queue blocks that
    // they (and their refreshes) scheduled.
    static void settle() {
        sqlm().drain();
        ASSERT_TRUE(pumpUntil([] { return queue()->pending() == 0; }));
        QCoreApplication::processEvents();
    }

    TempDir dir;
};

}  // namespace pointlane::testkit
