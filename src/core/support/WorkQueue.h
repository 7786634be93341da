#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace pointlane {

// A serial work queue: one worker thread runs the submitted blocks one at a time, in the
// order they were submitted. The database's writes go through one ("sqlite.manager").
//
// Thread safe. A block that throws is caught at the worker's entry and the queue goes on.
// Destruction runs every block already submitted, then joins the worker.
class WorkQueue final {
public:
    explicit WorkQueue(std::string label);
    ~WorkQueue();
    WorkQueue(const WorkQueue&) = delete;
    WorkQueue& operator=(const WorkQueue&) = delete;

    // Schedules block and returns at once.
    void async(std::function<void()> block);

    // Waits until every block submitted before this call has run. Called from a block on this
    // queue it returns at once (a block can't wait for itself).
    void drain();

    // True when called from this queue's worker thread.
    bool isCurrent() const;

    const std::string& label() const { return label_; }

private:
    void work();

    std::string label_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;      // work to do, or stop
    std::condition_variable progress_;  // a block finished
    std::deque<std::function<void()>> blocks_;  // guarded by mutex_
    std::uint64_t submitted_ = 0;               // guarded by mutex_
    std::uint64_t finished_ = 0;                // guarded by mutex_
    bool stopping_ = false;                     // guarded by mutex_
    std::thread worker_;
};

}  // namespace pointlane
