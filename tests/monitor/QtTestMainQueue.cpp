#include "QtTestMainQueue.h"

#include <QMetaObject>
#include <QTimer>

namespace pointlane::testkit {

void QtTestMainQueue::async(std::function<void()> block) {
    after(0, std::move(block));
}

void QtTestMainQueue::after(double seconds, std::function<void()> block) {
    blocks_.add(seconds, std::move(block));
    QMetaObject::invokeMethod(this, "runDue", Qt::QueuedConnection);
}

std::size_t QtTestMainQueue::pending() const {
    return blocks_.size();
}

std::size_t QtTestMainQueue::ran() const {
    return ran_.load();
}

void QtTestMainQueue::runDue() {
    for (;;) {
        std::chrono::steady_clock::duration untilNext{};
        std::function<void()> block = blocks_.takeDue(&untilNext);
        if (!block) {
            if (untilNext != std::chrono::steady_clock::duration::max()) {
                const auto ms = std::chrono::ceil<std::chrono::milliseconds>(untilNext).count();
                QTimer::singleShot(static_cast<int>(ms), this, &QtTestMainQueue::runDue);
            }
            return;
        }
        ++ran_;
        block();
    }
}

}  // namespace pointlane::testkit
