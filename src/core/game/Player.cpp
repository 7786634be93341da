#include "game/Player.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <utility>

#include "transport/Frame.h"
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
    if (descriptor == -1 || connect_socket(descriptor, host.c_str(), port) != 0) {
        return false;
    }
    clientSocket->setSendTimeout(kSendTimeoutSeconds);
    const int on = 1;
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return true;
}

bool Player::send(const Bytes& body) {
    if (!clientSocket || clientSocket->socketFileDescriptor() == -1) {
        return false;
    }
    if (body.size() > static_cast<std::size_t>(kMaxFrameBodyLength)) {
        return false;  // can't be framed; the connection stays as it is
    }
    // Header and body go out in one write: the client never sees a body without its length,
    // and a single segment is cheaper than two.
    Bytes frame = frameHeader(static_cast<std::int32_t>(body.size()));
    frame.insert(frame.end(), body.begin(), body.end());
    if (clientSocket->writeData(frame)) {
        return true;
    }
    // A write that failed or ran into the send time-out may have put part of the frame on the
    // wire. Anything written after it would be read by the client from the middle of a frame,
    // so the stream is unusable: close it now. The player keeps its registration (its token
    // still works for requests), and every later notification to it fails at once instead of
    // holding the registry's lock for another time-out.
    clientSocket->shutdown();
    return false;
}

}  // namespace pointlane
