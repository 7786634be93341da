#include "app/QtMainQueue.h"

#include <QMetaObject>
#include <QObject>
#include <QThread>
#include <QTimer>
#include <cmath>
#include <limits>

namespace pointlane {

QtMainQueue::QtMainQueue() : context_(new QObject) {}

QtMainQueue::~QtMainQueue() {
    // Deleting the context object drops whatever is still queued for it; that has to happen on
    // its own thread.
    if (context_->thread() == QThread::currentThread()) {
        delete context_;
    } else {
        context_->deleteLater();
    }
}

void QtMainQueue::async(std::function<void()> block) {
    QMetaObject::invokeMethod(context_, std::move(block), Qt::QueuedConnection);
}

void QtMainQueue::after(double seconds, std::function<void()> block) {
    // Rounded up and timed precisely: a coarse timer may fire up to 5% early, and callers rely on
    // "not before".
    double milliseconds = std::ceil(seconds * 1000.0);
    if (!(milliseconds > 0)) {
        milliseconds = 0;
    }
    const int interval = milliseconds >= std::numeric_limits<int>::max()
                             ? std::numeric_limits<int>::max()
                             : static_cast<int>(milliseconds);
    QObject* context = context_;
    async([context, interval, block = std::move(block)]() mutable {
        QTimer::singleShot(interval, Qt::PreciseTimer, context, std::move(block));
    });
}

}  // namespace pointlane
