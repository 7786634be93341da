#pragma once

#include <functional>
#include <memory>

#include "support/MainQueue.h"

class QObject;

namespace pointlane {

// The main queue on Qt's event loop: blocks are queued to an object that lives on the thread
// that made this queue, and delayed blocks start their timer there, so timers never belong to
// a worker thread that may end before they fire.
//
// Construct on the main thread once the QCoreApplication exists. async() and after() are thread
// safe. Blocks still queued when the queue is destroyed are dropped.
class QtMainQueue final : public MainQueue {
  public:
    QtMainQueue();
    ~QtMainQueue() override;
    QtMainQueue(const QtMainQueue&) = delete;
    QtMainQueue& operator=(const QtMainQueue&) = delete;

    void async(std::function<void()> block) override;
    void after(double seconds, std::function<void()> block) override;

  private:
    QObject* context_;  // owned; lives on the main thread
};

}  // namespace pointlane
