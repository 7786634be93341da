#include "transport/Socket.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "transport/SocketFunctions.h"

namespace pointlane {

namespace {

void closeDescriptor(int descriptor) {
    ::shutdown(descriptor, SHUT_RDWR);
    ::close(descriptor);
}

}  // namespace

std::shared_ptr<Socket> Socket::create(int descriptor) {
    if (descriptor == -1) {
        descriptor = ::socket(AF_INET, SOCK_STREAM, 0);
        if (descriptor == -1) {
            return nullptr;
        }
    }
    // In this order; the first failure drops the descriptor and leaves the rest untried.
    for (const int option : {SO_REUSEADDR, SO_KEEPALIVE, kNoSigPipeOption}) {
        if (setopt_socket(descriptor, option, 1) == -1) {
            closeDescriptor(descriptor);
            return nullptr;
        }
    }
    // A frame goes out as two writes; without this the body would wait for the peer's delayed
    // acknowledgement of the header (tens of milliseconds per answer). Best effort: a socket
    // that refuses it still works.
    const int noDelay = 1;
    ::setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &noDelay, sizeof(noDelay));
    return std::shared_ptr<Socket>(new Socket(descriptor));
}

Socket::~Socket() {
    shutdown();
}

std::optional<std::string> Socket::address() const {
    const int descriptor = socketFileDescriptor();
    if (descriptor == -1) {
        return std::nullopt;
    }
    char text[512] = {};
    int length = 0;
    if (socket_address(descriptor, text, &length) == -1) {
        return std::nullopt;
    }
    return std::string(text, static_cast<std::size_t>(length));
}

std::optional<Bytes> Socket::readData(std::int32_t bytesToRead) {
    const int descriptor = socketFileDescriptor();
    if (descriptor == -1) {
        return std::nullopt;
    }
    Bytes result;
    if (bytesToRead <= 0) {
        return result;
    }
    const int chunkSize = socket_internal_buffer_size(descriptor);
    // The result grows chunk by chunk as bytes arrive, so a large announced length costs
    // memory only for what the peer actually sends.
    std::int32_t remaining = bytesToRead;
    while (remaining >= 1) {
        const int ask = std::min(remaining, chunkSize);
        const std::size_t before = result.size();
        result.resize(before + static_cast<std::size_t>(ask));
        const int got = read_bytes(descriptor, result.data() + before, ask);
        if (got == -1) {
            return std::nullopt;
        }
        result.resize(before + static_cast<std::size_t>(got));
        if (got == 0) {
            if (before == 0) {
                return std::nullopt;
            }
            break;
        }
        remaining -= got;
        if (got < ask) {
            break;  // read_bytes stops short only at end of stream
        }
    }
    return result;
}

bool Socket::writeData(const Bytes& data) {
    return writeData(data.data(), data.size());
}

bool Socket::writeData(const std::uint8_t* bytes, std::size_t count) {
    const int descriptor = socketFileDescriptor();
    if (descriptor == -1) {
        return false;
    }
    if (count == 0) {
        return true;
    }
    if (count > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
        return false;
    }
    const int size = static_cast<int>(count);
    return write_bytes(descriptor, bytes, size) == size;
}

void Socket::shutdown() {
    const int descriptor = descriptor_.exchange(-1);
    if (descriptor != -1) {
        closeDescriptor(descriptor);
    }
}

bool Socket::setSendTimeout(double seconds) {
    const int descriptor = socketFileDescriptor();
    if (descriptor == -1 || !(seconds >= 0)) {
        return false;
    }
    timeval timeout{};
    timeout.tv_sec = static_cast<time_t>(std::floor(seconds));
    timeout.tv_usec = static_cast<suseconds_t>((seconds - std::floor(seconds)) * 1e6);
    return ::setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout)) == 0;
}

int Socket::localPort() const {
    const int descriptor = socketFileDescriptor();
    if (descriptor == -1) {
        return 0;
    }
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    if (::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
        address.sin_family != AF_INET) {
        return 0;
    }
    return ntohs(address.sin_port);
}

}  // namespace pointlane
