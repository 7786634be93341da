#include "transport/Endpoint.h"

#include "transport/SocketFunctions.h"

namespace pointlane {

namespace {

std::optional<Endpoint> read(const Socket& socket, int (*get)(int, unsigned*, int*)) {
    const int descriptor = socket.socketFileDescriptor();
    unsigned address = 0;
    int port = 0;
    if (descriptor == -1 || get(descriptor, &address, &port) == -1) {
        return std::nullopt;
    }
    return Endpoint{address, port};
}

}  // namespace

std::optional<Endpoint> Endpoint::local(const Socket& socket) {
    return read(socket, &socket_local_endpoint);
}

std::optional<Endpoint> Endpoint::peer(const Socket& socket) {
    return read(socket, &socket_peer_endpoint);
}

bool Endpoint::isOwnAddress() const {
    return is_own_address(address) != 0;
}

bool Endpoint::isOwnConnectionTo(const Endpoint& remote) const {
    return is_own_connection(address, port, remote.address, remote.port) == 1;
}

}  // namespace pointlane
