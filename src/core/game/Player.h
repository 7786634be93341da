#pragma once

#include <memory>
#include <string>

#include "support/Bytes.h"
#include "transport/Socket.h"

namespace pointlane {

// A logged-in player and its push connection to the player's own client server.
// Destruction shuts the push connection down, so a player dropped from the registry receives
// nothing more once the last holder lets go.
//
// Threading: name and isAdmin are fixed after construction. Writes on clientSocket are made
// only while the registry's lock ("pointlane.TokenStore") is held, so frames never interleave.
class Player final {
  public:
    // How long writing one notification frame may wait for a client server that has stopped
    // reading before the write fails; the registry's lock is held no longer than this per frame.
    static constexpr double kSendTimeoutSeconds = 3.0;

    Player(std::string name, bool isAdmin, std::shared_ptr<Socket> clientSocket);
    ~Player();
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    // Equal when the names are equal (exact, case-sensitive).
    bool operator==(const Player& other) const { return name == other.name; }

    // Connects clientSocket to host:port and bounds its writes with kSendTimeoutSeconds. True
    // when connected.
    bool connectBack(const std::string& host, int port);

    // Writes one whole frame on the push connection. A failed or timed-out write shuts the
    // connection down (see the definition for why); the player stays registered and later
    // sends fail at once.
    bool send(const Bytes& body);

    std::string name;  // exactly as sent at login, not trimmed
    bool isAdmin = false;
    std::shared_ptr<Socket> clientSocket;
};

}  // namespace pointlane
