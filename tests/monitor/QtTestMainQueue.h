#pragma once

#include <QObject>
#include <atomic>
#include <functional>

#include "TestKit.h"
#include "support/MainQueue.h"

namespace pointlane::testkit {

// A main queue on the Qt event loop for the monitor tests. Blocks wait in a std::mutex-guarded
// list (so thread sanitizers see the hand-over) and a queued call by name wakes the loop.
class QtTestMainQueue final : public QObject, public MainQueue {
    Q_OBJECT

  public:
    void async(std::function<void()> block) override;
    void after(double seconds, std::function<void()> block) override;

    // Blocks queued and not yet run.
    std::size_t pending() const;
    // Blocks run so far.
    std::size_t ran() const;

    Q_INVOKABLE void runDue();

  private:
    DueBlocks blocks_;
    std::atomic<std::size_t> ran_{0};
};

}  // namespace pointlane::testkit
