#include "transport/SocketFunctions.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace pointlane {

namespace {

// Linux has no SO_NOSIGPIPE; there the flag on each send keeps a write to a closed peer from
// raising SIGPIPE, so the write fails with EPIPE instead.
#ifdef MSG_NOSIGNAL
constexpr int kSendFlags = MSG_NOSIGNAL;
#else
constexpr int kSendFlags = 0;
#endif

ssize_t writeSome(int descriptor, const char* bytes, std::size_t count) {
    ssize_t written = ::send(descriptor, bytes, count, kSendFlags);
    if (written < 0 && errno == ENOTSOCK) {
        // Pipes and files: no peer to lose, so a plain write is safe.
        written = ::write(descriptor, bytes, count);
    }
    return written;
}

}  // namespace

int connect_socket(int descriptor, const char* host, int port) {
    if (host == nullptr) {
        return -1;
    }
    // getaddrinfo restricted to IPv4 gives what the classic resolver gives, without its shared
    // static result, so several connection threads may connect at once.
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(host, nullptr, &hints, &found) != 0 || found == nullptr) {
        return -1;
    }
    sockaddr_in address{};
    std::memcpy(&address, found->ai_addr, sizeof(address));
    ::freeaddrinfo(found);
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return ::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

int accept_socket(int descriptor) {
    return ::accept(descriptor, nullptr, nullptr);
}

int bind_socket(int descriptor, int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return ::bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
}

int setopt_socket(int descriptor, int option, int value) {
    if (option == kNoSigPipeOption) {
#ifdef SO_NOSIGPIPE
        option = SO_NOSIGPIPE;
#else
        // Nothing to set here: every write passes MSG_NOSIGNAL instead. A bad descriptor still
        // fails, as the real option would.
        int type = 0;
        socklen_t length = sizeof(type);
        return ::getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &length) == 0 ? 0 : -1;
#endif
    }
    return ::setsockopt(descriptor, SOL_SOCKET, option, &value, sizeof(value)) == 0 ? 0 : -1;
}

int socket_internal_buffer_size(int descriptor) {
    int size = 0;
    socklen_t length = sizeof(size);
    if (::getsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &size, &length) != 0 || size <= 0) {
        return 1024;
    }
    return size;
}

int socket_listen(int descriptor) {
    return ::listen(descriptor, 5);
}

int read_bytes(int descriptor, void* buffer, int count) {
    if (count < 1) {
        return 0;
    }
    char* position = static_cast<char*>(buffer);
    int remaining = count;
    while (remaining > 0) {
        const ssize_t got = ::read(descriptor, position, static_cast<std::size_t>(remaining));
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        if (got == 0) {
            break;
        }
        position += got;
        remaining -= static_cast<int>(got);
    }
    return count - remaining;
}

int write_bytes(int descriptor, const void* buffer, int count) {
    if (count <= 0) {
        return count == 0 ? 0 : -1;
    }
    const char* position = static_cast<const char*>(buffer);
    int remaining = count;
    while (remaining > 0) {
        errno = 0;
        const ssize_t written =
            writeSome(descriptor, position, static_cast<std::size_t>(remaining));
        if (written <= 0) {
            if (errno == EINTR) {
                continue;
            }
            return -1;
        }
        position += written;
        remaining -= static_cast<int>(written);
    }
    return count;
}

int socket_address(int descriptor, char* text, int* length) {
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    if (::getpeername(descriptor, reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
        address.sin_family != AF_INET) {
        return -1;
    }
    char dotted[INET_ADDRSTRLEN] = {};
    if (::inet_ntop(AF_INET, &address.sin_addr, dotted, sizeof(dotted)) == nullptr) {
        return -1;
    }
    const int dottedLength = static_cast<int>(std::strlen(dotted));
    *length = dottedLength;
    std::memcpy(text, dotted, static_cast<std::size_t>(dottedLength));
    return 0;
}

}  // namespace pointlane

namespace pointlane {

namespace {

int endpoint(int descriptor, bool local, unsigned* address, int* port) {
    sockaddr_in found{};
    socklen_t size = sizeof(found);
    const int result =
        local ? ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&found), &size)
              : ::getpeername(descriptor, reinterpret_cast<sockaddr*>(&found), &size);
    if (result != 0 || found.sin_family != AF_INET) {
        return -1;
    }
    *address = ntohl(found.sin_addr.s_addr);
    *port = ntohs(found.sin_port);
    return 0;
}

}  // namespace

int socket_local_endpoint(int descriptor, unsigned* address, int* port) {
    return endpoint(descriptor, true, address, port);
}

int socket_peer_endpoint(int descriptor, unsigned* address, int* port) {
    return endpoint(descriptor, false, address, port);
}

int is_own_address(unsigned address) {
    if ((address >> 24) == 127 || address == INADDR_ANY) {
        return 1;  // the loopback network; "any" reaches this machine as well
    }
    ifaddrs* interfaces = nullptr;
    if (::getifaddrs(&interfaces) != 0) {
        return -1;
    }
    int own = 0;
    for (const ifaddrs* entry = interfaces; entry != nullptr && own == 0; entry = entry->ifa_next) {
        if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET) {
            const auto* in = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
            own = ntohl(in->sin_addr.s_addr) == address ? 1 : 0;
        }
    }
    ::freeifaddrs(interfaces);
    return own;
}

}  // namespace pointlane
