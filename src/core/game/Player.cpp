#include "game/Player.h"

#include <utility>

#include "transport/SocketFunctions.h"

namespace pointlane {

Player::Player(std::string name, bool isAdmin, std::shared_ptr<Socket> clientSocket)
    : name(std::move(name)), isAdmin(isAdmin), clientSocket(std::move(clientSocket)) {}

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
