#include "transport/SocketFunctions.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

namespace pointlane {

namespace {

// Linux has no SO_NOSIGPIPE; there the flag on each send keeps a write to a closed peer from
// raising SIGPIPE, so the write fails with EPIPE instead.
#ifdef MSG_NOSIGNAL
constexpr int kSendFlags = MSG_NOSIGNAL;
#else
constexpr int kSendFlags = 0;
#endif

ssize_t writeSome(int descriptor, const char* bytes, std::size_t count, int flags = 0) {
    ssize_t written = ::send(descriptor, bytes, count, kSendFlags | flags);
    if (written < 0 && errno == ENOTSOCK) {
        // Pipes and files: no peer to lose, so a plain write is safe.
        written = ::write(descriptor, bytes, count);
    }
    return written;
}

int bindTo(int descriptor, std::uint32_t address, int port) {
    sockaddr_in socketAddress{};
    socketAddress.sin_family = AF_INET;
    socketAddress.sin_addr.s_addr = htonl(address);
    socketAddress.sin_port = htons(static_cast<std::uint16_t>(port));
    return ::bind(descriptor, reinterpret_cast<const sockaddr*>(&socketAddress),
                  sizeof(socketAddress));
}

// Sends what fits now without waiting; false when the write failed for good.
bool writeWhatFits(SocketWrite& write) {
    const char* bytes = static_cast<const char*>(write.buffer);
    while (write.written < write.count) {
        errno = 0;
        const ssize_t sent =
            writeSome(write.descriptor, bytes + write.written,
                      static_cast<std::size_t>(write.count - write.written), MSG_DONTWAIT);
        if (sent > 0) {
            write.written += static_cast<int>(sent);
        } else if (sent < 0 && errno == EINTR) {
            continue;
        } else if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            return true;
        } else {
            return false;
        }
    }
    return true;
}

}  // namespace

int create_socket() {
    return ::socket(AF_INET, SOCK_STREAM, 0);
}

int shutdown_socket(int descriptor, int how) {
    return ::shutdown(descriptor, how);
}

int close_socket(int descriptor) {
    return ::close(descriptor);
}

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
    return bindTo(descriptor, INADDR_ANY, port);
}

int bind_socket_loopback(int descriptor, int port) {
    return bindTo(descriptor, INADDR_LOOPBACK, port);
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

int setopt_tcp(int descriptor, int option, int value) {
    return ::setsockopt(descriptor, IPPROTO_TCP, option, &value, sizeof(value)) == 0 ? 0 : -1;
}

int setopt_socket_timeout(int descriptor, int option, double seconds) {
    if (!(seconds >= 0)) {
        return -1;
    }
    timeval timeout{};
    timeout.tv_sec = static_cast<time_t>(std::floor(seconds));
    timeout.tv_usec = static_cast<suseconds_t>((seconds - std::floor(seconds)) * 1e6);
    return ::setsockopt(descriptor, SOL_SOCKET, option, &timeout, sizeof(timeout)) == 0 ? 0 : -1;
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

int write_all_before(SocketWrite* writes, int count,
                     std::chrono::steady_clock::time_point deadline) {
    for (int i = 0; i < count; ++i) {
        writes[i].failed = writes[i].failed || writes[i].descriptor == -1;
    }
    std::vector<pollfd> waiting;
    std::vector<SocketWrite*> pending;
    for (;;) {
        waiting.clear();
        pending.clear();
        for (int i = 0; i < count; ++i) {
            SocketWrite& write = writes[i];
            if (write.failed || write.written >= write.count) {
                continue;
            }
            if (!writeWhatFits(write)) {
                write.failed = true;
            } else if (write.written < write.count) {
                waiting.push_back(pollfd{write.descriptor, POLLOUT, 0});
                pending.push_back(&write);
            }
        }
        if (pending.empty()) {
            break;
        }
        int timeout = -1;
        if (deadline != std::chrono::steady_clock::time_point::max()) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                for (SocketWrite* write : pending) {
                    write->failed = true;
                }
                break;
            }
            timeout = left.count() < INT_MAX ? static_cast<int>(left.count()) : INT_MAX;
        }
        // Whatever poll reports for a descriptor (room, an error, a hang-up), the next send on
        // it tells.
        if (::poll(waiting.data(), waiting.size(), timeout) < 0 && errno != EINTR) {
            for (SocketWrite* write : pending) {
                write->failed = true;
            }
            break;
        }
    }
    int whole = 0;
    for (int i = 0; i < count; ++i) {
        whole += !writes[i].failed && writes[i].written >= writes[i].count ? 1 : 0;
    }
    return whole;
}

int socket_local_port(int descriptor) {
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    if (::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
        address.sin_family != AF_INET) {
        return 0;
    }
    return ntohs(address.sin_port);
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
    const int result = local
                           ? ::getsockname(descriptor, reinterpret_cast<sockaddr*>(&found), &size)
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

int is_own_connection(unsigned localAddress, int localPort, unsigned remoteAddress,
                      int remotePort) {
    std::FILE* table = std::fopen("/proc/net/tcp", "re");
    if (table == nullptr) {
        return -1;
    }
    // Lines: "sl: local rem st tx:rx tr:when retrnsmt uid timeout inode ..."; each address is
    // the network-order word printed as a native hexadecimal number, each port in host order.
    std::vector<unsigned long> inodes;
    char line[512];
    bool header = true;
    while (std::fgets(line, sizeof(line), table) != nullptr) {
        if (header) {
            header = false;
            continue;
        }
        unsigned local = 0, localP = 0, remote = 0, remoteP = 0;
        unsigned long inode = 0;
        if (std::sscanf(line, " %*u: %8X:%4X %8X:%4X %*X %*X:%*X %*X:%*X %*X %*u %*d %lu", &local,
                        &localP, &remote, &remoteP, &inode) == 5 &&
            inode != 0 && ntohl(local) == localAddress && static_cast<int>(localP) == localPort &&
            ntohl(remote) == remoteAddress && static_cast<int>(remoteP) == remotePort) {
            inodes.push_back(inode);
        }
    }
    std::fclose(table);
    if (inodes.empty()) {
        return 0;
    }
    DIR* descriptors = ::opendir("/proc/self/fd");
    if (descriptors == nullptr) {
        return -1;
    }
    int own = 0;
    while (own == 0) {
        const dirent* entry = ::readdir(descriptors);
        if (entry == nullptr) {
            break;
        }
        char target[64] = {};
        const ssize_t length =
            ::readlinkat(::dirfd(descriptors), entry->d_name, target, sizeof(target) - 1);
        unsigned long inode = 0;
        if (length > 0 && std::sscanf(target, "socket:[%lu]", &inode) == 1) {
            for (const unsigned long wanted : inodes) {
                own = own != 0 || inode == wanted ? 1 : 0;
            }
        }
    }
    ::closedir(descriptors);
    return own;
}

}  // namespace pointlane
