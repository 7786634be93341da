#pragma once

#include <cstdint>
#include <optional>

#include "transport/Socket.h"

namespace pointlane {

// One end of an IPv4 TCP connection: address (host byte order) and port.
struct Endpoint {
    std::uint32_t address = 0;
    int port = 0;

    bool operator==(const Endpoint&) const = default;

    // The socket's own end, or the end it is connected to; nothing on a closed socket or one
    // whose ends can't be read.
    static std::optional<Endpoint> local(const Socket& socket);
    static std::optional<Endpoint> peer(const Socket& socket);

    // True when the address reaches this machine itself (loopback, or one of its interfaces'
    // addresses). An address whose owner can't be told counts as ours: refusing a connection
    // back wrongly costs one login, feeding the server its own notifications costs the run.
    bool isOwnAddress() const;

    // True when the TCP connection from this endpoint to remote is held by a socket open in
    // this very process: a connection that comes from another program on the machine, or
    // whose owner can't be told, is not ours.
    bool isOwnConnectionTo(const Endpoint& remote) const;
};

}  // namespace pointlane
