#include "TestKit.h"

#include <unistd.h>

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

void ManualMainQueue::async(std::function<void()> block) {
    after(0, std::move(block));
}

void ManualMainQueue::after(double seconds, std::function<void()> block) {
    const auto due = std::chrono::steady_clock::now() +
                     std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                         std::chrono::duration<double>(seconds));
    std::lock_guard lock(mutex_);
    items_.push_back({due, std::move(block)});
}

int ManualMainQueue::runDue() {
    int ran = 0;
    for (;;) {
        std::function<void()> block;
        {
            std::lock_guard lock(mutex_);
            const auto now = std::chrono::steady_clock::now();
            for (auto it = items_.begin(); it != items_.end(); ++it) {
                if (it->due <= now) {
                    block = std::move(it->block);
                    items_.erase(it);
                    break;
                }
            }
        }
        if (!block) {
            return ran;
        }
        block();
        ++ran;
    }
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
    std::lock_guard lock(mutex_);
    return items_.size();
}

ScopedManualMainQueue::ScopedManualMainQueue() : queue_(std::make_shared<ManualMainQueue>()) {
    MainQueue::install(queue_);
}

ScopedManualMainQueue::~ScopedManualMainQueue() {
    MainQueue::install(nullptr);
}

}  // namespace pointlane::testkit
