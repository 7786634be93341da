#pragma once

#include <memory>
#include <string>

#include "transport/Socket.h"

namespace pointlane {

// A logged-in player and its push connection to the player's own client server.
// Destruction shuts the push connection down, so a player dropped from the registry receives
// nothing more once the last holder lets go.
//
// Threading: name and isAdmin are fixed after construction. Notifications are written on
// clientSocket only while the registry's lock ("pointlane.TokenStore") is held, so frames
// never interleave (see PlayerStore).
class Player final {
  public:
    Player(std::string playerName, bool admin, std::shared_ptr<Socket> pushSocket);
    ~Player();
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    // Equal when the names are equal (exact, case-sensitive).
    bool operator==(const Player& other) const { return name == other.name; }

    // Connects clientSocket to host:port. True when connected.
    bool connectBack(const std::string& host, int port);

    std::string name;  // exactly as sent at login, not trimmed
    bool isAdmin = false;
    std::shared_ptr<Socket> clientSocket;
};

}  // namespace pointlane
