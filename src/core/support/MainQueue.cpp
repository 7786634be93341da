#include "support/MainQueue.h"

#include <mutex>

namespace pointlane {

namespace {
std::mutex installedMutex;
std::shared_ptr<MainQueue> installed;  // guarded by installedMutex
}  // namespace

void MainQueue::install(std::shared_ptr<MainQueue> queue) {
    std::lock_guard lock(installedMutex);
    installed = std::move(queue);
}

std::shared_ptr<MainQueue> MainQueue::current() {
    std::lock_guard lock(installedMutex);
    return installed;
}

void mainAsync(std::function<void()> block) {
    if (auto queue = MainQueue::current()) {
        queue->async(std::move(block));
    }
}

void after(double seconds, std::function<void()> block) {
    if (auto queue = MainQueue::current()) {
        queue->after(seconds, std::move(block));
    }
}

}  // namespace pointlane
