#include "game/RequestGate.h"

#include <vector>

namespace pointlane {

RequestGate& RequestGate::shared() {
    // Never destroyed: detached connection threads may still pass it while the process ends.
    static RequestGate* gate = new RequestGate();
    return *gate;
}

bool RequestGate::enter(const std::shared_ptr<Socket>& connection) {
    std::lock_guard lock(mutex_);
    if (closed_) {
        return false;
    }
    inFlight_.insert(connection);
    return true;
}

void RequestGate::leave(const std::shared_ptr<Socket>& connection) {
    std::lock_guard lock(mutex_);
    inFlight_.erase(connection);
    if (inFlight_.empty()) {
        left_.notify_all();
    }
}

bool RequestGate::close(std::chrono::milliseconds timeout) {
    std::vector<std::shared_ptr<Socket>> stuck;
    {
        std::unique_lock lock(mutex_);
        closed_ = true;
        if (left_.wait_for(lock, timeout, [this] { return inFlight_.empty(); })) {
            return true;
        }
        stuck.assign(inFlight_.begin(), inFlight_.end());
    }
    // Outside the lock: a handler about to leave must not wait for these shutdowns.
    for (const auto& connection : stuck) {
        connection->shutdown();
    }
    return false;
}

bool RequestGate::isClosed() const {
    std::lock_guard lock(mutex_);
    return closed_;
}

void RequestGate::reset() {
    std::lock_guard lock(mutex_);
    closed_ = false;
    inFlight_.clear();
}

}  // namespace pointlane
