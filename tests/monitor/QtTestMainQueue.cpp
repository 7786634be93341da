#include "QtTestMainQueue.h"

#include <QMetaObject>
#include <QTimer>

namespace pointlane::testkit {

void QtTestMainQueue::async(std::function<void()> block) {
    after(0, std::move(block));
}

void QtTestMainQueue::after(double seconds, std::function<void()> block) {
    const auto delay = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(seconds));
    {
        std::lock_guard lock(mutex_);
        items_.push_back({std::chrono::steady_clock::now() + delay, std::move(block)});
    }
    QMetaObject::invokeMethod(this, "runDue", Qt::QueuedConnection);
}

std::size_t QtTestMainQueue::pending() const {
    std::lock_guard lock(mutex_);
    return items_.size();
}

std::size_t QtTestMainQueue::ran() const {
    std::lock_guard lock(mutex_);
    return ran_;
}

void QtTestMainQueue::runDue() {
    for (;;) {
        std::function<void()> block;
        std::chrono::steady_clock::duration untilNext = std::chrono::steady_clock::duration::max();
        {
            std::lock_guard lock(mutex_);
            const auto now = std::chrono::steady_clock::now();
            for (auto it = items_.begin(); it != items_.end(); ++it) {
                if (it->due <= now) {
                    block = std::move(it->block);
                    items_.erase(it);
                    ++ran_;
                    break;
                }
                untilNext = std::min(untilNext, it->due - now);
            }
        }
        if (!block) {
            if (untilNext != std::chrono::steady_clock::duration::max()) {
                const auto ms = std::chrono::ceil<std::chrono::milliseconds>(untilNext).count();
                QTimer::singleShot(static_cast<int>(ms), this, &QtTestMainQueue::runDue);
            }
            return;
        }
        block();
    }
}

}  // namespace pointlane::testkit
