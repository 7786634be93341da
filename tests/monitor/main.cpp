// The monitor tests need a QApplication on the main thread and a main queue on its loop.
#include <gtest/gtest.h>

#include <QApplication>
#include <memory>

#include "QtTestMainQueue.h"

int main(int argc, char** argv) {
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QApplication app(argc, argv);
    auto queue = std::make_shared<pointlane::testkit::QtTestMainQueue>();
    pointlane::MainQueue::install(queue);
    ::testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    pointlane::MainQueue::install(nullptr);
    return result;
}
