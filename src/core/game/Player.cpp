#include "game/Player.h"

#include <utility>

#include "transport/SocketFunctions.h"

namespace pointlane {

Player::Player(std::string playerName, bool admin, std::shared_ptr<Socket> pushSocket)
    : name(std::move(playerName)), isAdmin(admin), clientSocket(std::move(pushSocket)) {}

Player::~Player() {
    if (clientSocket) {
        clientSocket->shutdown();
    }
}

bool Player::connectBack(const std::string& host, int port) {
    if (!clientSocket) {
        return false;
    }
    const int descriptor = clientSocket->socketFileDescriptor();
    return descriptor != -1 && connect_socket(descriptor, host.c_str(), port) == 0;
}

}  // namespace pointlane
