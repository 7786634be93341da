#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "support/Bytes.h"

namespace pointlane {

// Owns one IPv4 stream socket descriptor and closes it when destroyed, and only then: a
// descriptor number is never reused while another thread may still be reading it.
// socketFileDescriptor() is -1 when there is no usable socket (never opened, failed, or shut
// down). Shared by reference; the last holder's release shuts the connection down and closes
// the descriptor.
//
// Threading: no lock of its own. One thread reads a socket; writes of whole frames from
// several threads must be serialised by the caller. shutdown() may be called from any thread,
// to wake a reader blocked on the socket.
class Socket final {
  public:
    // Takes ownership of descriptor (-1 asks for a new socket) and sets SO_REUSEADDR,
    // SO_KEEPALIVE and no-SIGPIPE. nullptr when the socket can't be created or configured (the
    // descriptor is then shut down and closed).
    static std::shared_ptr<Socket> create(int descriptor = -1);

    // Shuts the connection down, if that hasn't happened yet, and closes the descriptor.
    ~Socket();
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int socketFileDescriptor() const { return descriptor_.load(); }

    // The peer's dotted IPv4 address, or nothing.
    std::optional<std::string> address() const;
    // Exactly n bytes, fewer when the peer closed part-way; an empty buffer for n <= 0; nothing
    // on a shut socket, an error, or end of stream before the first byte.
    std::optional<Bytes> readData(std::int32_t bytesToRead);
    // True when every byte was written (an empty buffer is true without a write).
    bool writeData(const Bytes& data);
    bool writeData(const std::uint8_t* bytes, std::size_t count);

    // Shuts both directions down (the peer sees the end of the stream, a blocked reader or
    // accept wakes up) and makes socketFileDescriptor() -1, so every later operation fails at
    // once. The descriptor stays open until destruction. Idempotent; any thread.
    void shutdown();

    // Bound each blocking send or read (SO_SNDTIMEO, SO_RCVTIMEO); a call that times out
    // fails. True on success.
    bool setSendTimeout(double seconds);
    bool setReceiveTimeout(double seconds);
    // The local port the socket is bound to, 0 when unbound or shut down.
    int localPort() const;

  private:
    explicit Socket(int descriptor) : owned_(descriptor), descriptor_(descriptor) {}
    const int owned_;              // closed by the destructor
    std::atomic<int> descriptor_;  // owned_ until shut down, then -1
};

}  // namespace pointlane
