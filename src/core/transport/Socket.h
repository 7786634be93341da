#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "support/Bytes.h"

namespace pointlane {

// Owns one IPv4 stream socket descriptor; -1 means there is no usable socket (never opened,
// failed, or shut down). Shared by reference; destruction shuts the descriptor down.
//
// Threading: no lock of its own. One thread reads a socket; writes of whole frames from
// several threads must be serialised by the caller. shutdown() may be called from any thread.
class Socket final {
public:
    // Takes ownership of descriptor (-1 asks for a new socket) and sets SO_REUSEADDR,
    // SO_KEEPALIVE and no-SIGPIPE. nullptr when the socket can't be created or configured (the
    // descriptor is then shut down and closed).
    static std::shared_ptr<Socket> create(int descriptor = -1);

    ~Socket();
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int socketFileDescriptor() const { return descriptor_.load(); }

    // The peer's dotted IPv4 address, or nothing.
    std::optional<std::string> address() const;
    // Exactly n bytes, fewer when the peer closed part-way; an empty buffer for n <= 0; nothing
    // on a closed socket, an error, or end of stream before the first byte.
    std::optional<Bytes> readData(std::int32_t bytesToRead);
    // True when every byte was written (an empty buffer is true without a write).
    bool writeData(const Bytes& data);
    bool writeData(const std::uint8_t* bytes, std::size_t count);

    // Both directions shut, descriptor closed, socketFileDescriptor() -1. Idempotent.
    void shutdown();

    // Bounds each blocking send (SO_SNDTIMEO); a send that times out fails. True on success.
    bool setSendTimeout(double seconds);
    // The local port the socket is bound to, 0 when unbound or closed.
    int localPort() const;

private:
    explicit Socket(int descriptor) : descriptor_(descriptor) {}
    std::atomic<int> descriptor_;
};

}  // namespace pointlane
