#include "transport/ServerThread.h"

#include <utility>

namespace pointlane {

ServerThread::ServerThread(std::shared_ptr<Socket> connection) : socket(std::move(connection)) {
    if (socket) {
        clientAddress = socket->address();
    }
}

ServerThread::~ServerThread() {
    if (socket) {
        socket->shutdown();
    }
}

void ServerThread::run() {}

bool ServerThread::operator==(const ServerThread& other) const {
    const int mine = socket ? socket->socketFileDescriptor() : -1;
    const int theirs = other.socket ? other.socket->socketFileDescriptor() : -1;
    return mine == theirs;
}

std::size_t ServerThread::hash() const {
    return static_cast<std::size_t>(socket ? socket->socketFileDescriptor() : -1);
}

}  // namespace pointlane
