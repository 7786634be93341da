#include "support/WorkQueue.h"

#include <cstdio>
#include <exception>

namespace pointlane {

WorkQueue::WorkQueue(std::string label) : label_(std::move(label)) {
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

void WorkQueue::async(std::function<void()> block) {
    {
        std::lock_guard lock(mutex_);
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

bool WorkQueue::isCurrent() const { return std::this_thread::get_id() == worker_.get_id(); }

void WorkQueue::work() {
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [&] { return stopping_ || !blocks_.empty(); });
        if (blocks_.empty()) {
            return;  // stopping, and everything submitted has run
        }
        std::function<void()> block = std::move(blocks_.front());
        blocks_.pop_front();
        lock.unlock();
        try {
            if (block) {
                block();
            }
        } catch (const std::exception& e) {
            std::printf("%s: a block failed: %s\n", label_.c_str(), e.what());
            std::fflush(stdout);
        } catch (...) {
            std::printf("%s: a block failed\n", label_.c_str());
            std::fflush(stdout);
        }
        block = nullptr;  // release captures before reporting progress
        lock.lock();
        ++finished_;
        progress_.notify_all();
    }
}

}  // namespace pointlane
