#include "game/Player.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <utility>

#include "transport/Frame.h"
#include "transport/SocketFunctions.h"

namespace pointlane {

namespace {

// Writes every byte before the deadline. A send time-out alone bounds each blocked send call,
// not the frame: a client that reads a trickle lets every call make a little progress and the
// frame could take many time-outs. So the sends don't block, and the wait for room is bounded
// by what is left until the deadline.
bool writeAllBefore(int descriptor, const Bytes& bytes,
                    std::chrono::steady_clock::time_point deadline) {
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t n = ::send(descriptor, bytes.data() + written, bytes.size() - written,
                                 MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            written += static_cast<std::size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                return false;
            }
            pollfd room{descriptor, POLLOUT, 0};
            const int ready = ::poll(&room, 1, static_cast<int>(left.count()));
            if (ready < 0 && errno != EINTR) {
                return false;
            }
            continue;
        }
        return false;
    }
    return true;
}

}  // namespace

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
    // Writes are bounded per frame in send(); this bounds any other blocking write as well.
    clientSocket->setSendTimeout(kSendTimeoutSeconds);
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
    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                              std::chrono::duration<double>(kSendTimeoutSeconds));
    if (writeAllBefore(clientSocket->socketFileDescriptor(), frame, deadline)) {
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
