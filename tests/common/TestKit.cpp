#include "TestKit.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <thread>

namespace pointlane::testkit {

TempDir::TempDir() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "pointlane-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return condition();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

void DueBlocks::add(double seconds, std::function<void()> block) {
    const auto due = std::chrono::steady_clock::now() +
                     std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                         std::chrono::duration<double>(seconds));
    std::lock_guard lock(mutex_);
    items_.push_back({due, std::move(block)});
}

std::function<void()> DueBlocks::takeDue(std::chrono::steady_clock::duration* untilNext) {
    auto next = std::chrono::steady_clock::duration::max();
    std::lock_guard lock(mutex_);
    const auto now = std::chrono::steady_clock::now();
    for (auto it = items_.begin(); it != items_.end(); ++it) {
        if (it->due <= now) {
            std::function<void()> block = std::move(it->block);
            items_.erase(it);
            return block;
        }
        next = std::min(next, it->due - now);
    }
    if (untilNext != nullptr) {
        *untilNext = next;
    }
    return nullptr;
}

std::size_t DueBlocks::size() const {
    std::lock_guard lock(mutex_);
    return items_.size();
}

void ManualMainQueue::async(std::function<void()> block) {
    blocks_.add(0, std::move(block));
}

void ManualMainQueue::after(double seconds, std::function<void()> block) {
    blocks_.add(seconds, std::move(block));
}

int ManualMainQueue::runDue() {
    int ran = 0;
    while (std::function<void()> block = blocks_.takeDue()) {
        block();
        ++ran;
    }
    return ran;
}

bool ManualMainQueue::runUntil(const std::function<bool()>& condition,
                               std::chrono::milliseconds timeout) {
    return waitUntil(
        [&] {
            runDue();
            return condition();
        },
        timeout);
}

std::size_t ManualMainQueue::pending() const {
    return blocks_.size();
}

ScopedManualMainQueue::ScopedManualMainQueue() : queue_(std::make_shared<ManualMainQueue>()) {
    MainQueue::install(queue_);
}

ScopedManualMainQueue::~ScopedManualMainQueue() {
    MainQueue::install(nullptr);
}

}  // namespace pointlane::testkit
