#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>

#include "support/MainQueue.h"

namespace pointlane::testkit {

// A fresh temporary folder, removed with everything in it when the object goes.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::string file(const std::string& name) const { return (path_ / name).string(); }

  private:
    std::filesystem::path path_;
};

// Polls condition until it holds or the time-out passes; true when it held.
bool waitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds timeout = std::chrono::seconds(10));

// Blocks waiting for their time, for the test main queues. Thread safe.
class DueBlocks {
  public:
    // Files block to run seconds from now.
    void add(double seconds, std::function<void()> block);
    // Takes the first block whose time has come, or nothing; untilNext (when given) is then
    // the time until the nearest later one, or max() when none waits.
    std::function<void()> takeDue(std::chrono::steady_clock::duration* untilNext = nullptr);
    std::size_t size() const;

  private:
    struct Item {
        std::chrono::steady_clock::time_point due;
        std::function<void()> block;
    };
    mutable std::mutex mutex_;
    std::deque<Item> items_;  // guarded by mutex_
};

// A main queue that the test drives: blocks run only when the test thread (standing in for the
// main thread) calls runDue() or runUntil(). Thread safe for async()/after().
class ManualMainQueue final : public MainQueue {
  public:
    void async(std::function<void()> block) override;
    void after(double seconds, std::function<void()> block) override;

    // Runs every block whose time has come; returns how many ran.
    int runDue();
    // Runs due blocks until condition holds or the time-out passes; true when it held.
    bool runUntil(const std::function<bool()>& condition,
                  std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // Blocks queued and not yet run.
    std::size_t pending() const;

  private:
    DueBlocks blocks_;
};

// Installs a ManualMainQueue for the life of the object and removes it afterwards.
class ScopedManualMainQueue {
  public:
    ScopedManualMainQueue();
    ~ScopedManualMainQueue();
    ManualMainQueue& operator*() { return *queue_; }
    ManualMainQueue* operator->() { return queue_.get(); }

  private:
    std::shared_ptr<ManualMainQueue> queue_;
};

}  // namespace pointlane::testkit
