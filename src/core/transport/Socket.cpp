#include "transport/Socket.h"

#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <limits>

#include "transport/SocketFunctions.h"

namespace pointlane {

std::shared_ptr<Socket> Socket::create(int descriptor) {
    if (descriptor == -1) {
        descriptor = create_socket();
        if (descriptor == -1) {
            return nullptr;
        }
    }
    // In this order; the first failure drops the descriptor and leaves the rest untried.
    for (const int option : {SO_REUSEADDR, SO_KEEPALIVE, kNoSigPipeOption}) {
        if (setopt_socket(descriptor, option, 1) == -1) {
            shutdown_socket(descriptor, SHUT_RDWR);
            close_socket(descriptor);
            return nullptr;
        }
    }
    // Each frame goes out in one write. Without this, a frame written while an earlier one on
    // the same connection is still unacknowledged (notifications and answers often follow each
    // other closely) would wait for the peer's delayed acknowledgement, tens of milliseconds.
    // Best effort: a socket that refuses it still works.
    setopt_tcp(descriptor, TCP_NODELAY, 1);
    return std::shared_ptr<Socket>(new Socket(descriptor));
}

Socket::~Socket() {
    shutdown();
    close_socket(owned_);
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
    if (descriptor_.exchange(-1) != -1) {
        shutdown_socket(owned_, SHUT_RDWR);
    }
}

bool Socket::setSendTimeout(double seconds) {
    const int descriptor = socketFileDescriptor();
    return descriptor != -1 && setopt_socket_timeout(descriptor, SO_SNDTIMEO, seconds) == 0;
}

bool Socket::setReceiveTimeout(double seconds) {
    const int descriptor = socketFileDescriptor();
    return descriptor != -1 && setopt_socket_timeout(descriptor, SO_RCVTIMEO, seconds) == 0;
}

int Socket::localPort() const {
    const int descriptor = socketFileDescriptor();
    return descriptor == -1 ? 0 : socket_local_port(descriptor);
}

}  // namespace pointlane
