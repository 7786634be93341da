#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace pointlane {

// A serial work queue: one worker thread runs the submitted blocks one at a time, in the
// order they were submitted. The database's writes go through one ("sqlite.manager").
//
// The worker takes every block waiting at that moment as one batch and hands the batch to the
// batch runner (by default: run them one after another), so that an owner can wrap a batch in
// one unit of work (the database runs it inside one transaction). At most `capacity` blocks
// wait at a time: a submitter on another thread waits for room, so a flood slows its sender
// instead of growing memory. The worker itself never waits for room (a block that submits
// would wait for itself); its submissions may go past the bound.
//
// Thread safe. A block that throws is caught and the queue goes on (the default runner catches
// and reports; a custom runner decides itself). Destruction runs every block already
// submitted, then joins the worker.
class WorkQueue final {
  public:
    using Block = std::function<void()>;
    // Runs every block of one batch, in order, on the worker.
    using BatchRunner = std::function<void(std::vector<Block>& batch)>;

    static constexpr std::size_t kDefaultCapacity = 1024;

    explicit WorkQueue(std::string label, std::size_t capacity = kDefaultCapacity);
    ~WorkQueue();
    WorkQueue(const WorkQueue&) = delete;
    WorkQueue& operator=(const WorkQueue&) = delete;

    // Installs the runner for the batches taken from now on (nullptr: the default).
    void setBatchRunner(BatchRunner runner);

    // Schedules block; waits first while the queue holds `capacity` waiting blocks, unless
    // called from the worker.
    void async(Block block);

    // Waits until every block submitted before this call has run. Called from a block on this
    // queue it returns at once (a block can't wait for itself).
    void drain();

    // True when called from this queue's worker thread.
    bool isCurrent() const;

    const std::string& label() const { return label_; }
    std::size_t capacity() const { return capacity_; }

    // Runs one block, reporting (not propagating) what it throws; false when it threw.
    bool runReporting(const Block& block) const;

  private:
    void work();

    std::string label_;
    std::size_t capacity_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;      // work to do, or stop
    std::condition_variable room_;      // blocks were taken off the queue
    std::condition_variable progress_;  // a batch finished
    std::deque<Block> blocks_;          // guarded by mutex_
    BatchRunner runner_;                // guarded by mutex_
    std::uint64_t submitted_ = 0;       // guarded by mutex_
    std::uint64_t finished_ = 0;        // guarded by mutex_
    bool stopping_ = false;             // guarded by mutex_
    std::thread worker_;
};

}  // namespace pointlane
