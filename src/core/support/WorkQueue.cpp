#include "support/WorkQueue.h"

#include <cstdio>
#include <exception>
#include <iterator>

namespace pointlane {

WorkQueue::WorkQueue(std::string label, std::size_t capacity)
    : label_(std::move(label)), capacity_(capacity == 0 ? 1 : capacity) {
    worker_ = std::thread([this] { work(); });
}

WorkQueue::~WorkQueue() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (worker_.joinable()) {
        worker_.join();
    }
}

void WorkQueue::setBatchRunner(BatchRunner runner) {
    std::lock_guard lock(mutex_);
    runner_ = std::move(runner);
}

void WorkQueue::async(Block block) {
    {
        std::unique_lock lock(mutex_);
        if (!isCurrent()) {
            room_.wait(lock, [&] { return blocks_.size() < capacity_; });
        }
        blocks_.push_back(std::move(block));
        ++submitted_;
    }
    wake_.notify_one();
}

void WorkQueue::drain() {
    if (isCurrent()) {
        return;
    }
    std::unique_lock lock(mutex_);
    const std::uint64_t target = submitted_;
    progress_.wait(lock, [&] { return finished_ >= target; });
}

bool WorkQueue::isCurrent() const {
    return std::this_thread::get_id() == worker_.get_id();
}

bool WorkQueue::runReporting(const Block& block) const {
    try {
        if (block) {
            block();
        }
        return true;
    } catch (const std::exception& e) {
        std::printf("%s: a block failed: %s\n", label_.c_str(), e.what());
    } catch (...) {
        std::printf("%s: a block failed\n", label_.c_str());
    }
    std::fflush(stdout);
    return false;
}

void WorkQueue::work() {
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [&] { return stopping_ || !blocks_.empty(); });
        if (blocks_.empty()) {
            return;  // stopping, and everything submitted has run
        }
        std::vector<Block> batch(std::make_move_iterator(blocks_.begin()),
                                 std::make_move_iterator(blocks_.end()));
        blocks_.clear();
        const BatchRunner runner = runner_;
        lock.unlock();
        room_.notify_all();
        if (runner) {
            try {
                runner(batch);
            } catch (...) {
                std::printf("%s: a batch failed\n", label_.c_str());
                std::fflush(stdout);
            }
        } else {
            for (Block& block : batch) {
                runReporting(block);
                block = nullptr;
            }
        }
        const std::size_t ran = batch.size();
        batch.clear();  // release captures before reporting progress
        lock.lock();
        finished_ += ran;
        progress_.notify_all();
    }
}

}  // namespace pointlane
