#include "game/SelfConnectionGuard.h"

#include <algorithm>
#include <mutex>
#include <optional>
#include <vector>

#include "transport/Endpoint.h"

namespace pointlane {

namespace {

struct Push {
    std::weak_ptr<Socket> socket;
    Endpoint local;
};

std::mutex pushesMutex;
// Never destroyed: detached connection threads may still look here while the process ends.
std::vector<Push>& pushes() {  // guarded by pushesMutex
    static auto* filed = new std::vector<Push>();
    return *filed;
}

bool isOpen(const Push& push) {
    const auto socket = push.socket.lock();
    return socket && socket->socketFileDescriptor() != -1;
}

}  // namespace

bool SelfConnectionGuard::reachesOwnListener(const Socket& push, const Socket& request) {
    const auto target = Endpoint::peer(push);
    const auto listener = Endpoint::local(request);
    if (!target || !listener) {
        return false;
    }
    if (target->port != listener->port) {
        return false;
    }
    const auto own = Endpoint::local(push);
    return (own && own->address == target->address) || target->isOwnAddress();
}

void SelfConnectionGuard::filePush(const std::shared_ptr<Socket>& push) {
    const auto local = push ? Endpoint::local(*push) : std::nullopt;
    if (!local) {
        return;
    }
    std::lock_guard lock(pushesMutex);
    auto& filed = pushes();
    // Closed connections go: their ends may be taken by anybody's connection later.
    filed.erase(
        std::remove_if(filed.begin(), filed.end(), [](const Push& p) { return !isOpen(p); }),
        filed.end());
    filed.push_back(Push{push, *local});
}

bool SelfConnectionGuard::isOwnPush(const Socket& accepted) {
    const auto peer = Endpoint::peer(accepted);
    if (!peer) {
        return false;
    }
    std::lock_guard lock(pushesMutex);
    const auto& filed = pushes();
    return std::any_of(filed.begin(), filed.end(),
                       [&](const Push& p) { return p.local == *peer && isOpen(p); });
}

}  // namespace pointlane
