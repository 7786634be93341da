#pragma once

#include <chrono>

// Plain C-level socket functions over BSD sockets (IPv4 stream sockets only). Each returns a
// plain integer status: -1 on failure unless said otherwise. They keep no state. Every socket
// system call of the program is made here and nowhere else.

namespace pointlane {

// Stands for "writes to a closed peer must not raise SIGPIPE" in setopt_socket: SO_NOSIGPIPE
// where the platform has it; elsewhere setting it succeeds without a system option, since
// write_bytes never raises the signal anyway.
constexpr int kNoSigPipeOption = -0x4e53;

// A new IPv4 stream socket: its descriptor, or -1.
int create_socket();
// shutdown with how (SHUT_RD, SHUT_WR or SHUT_RDWR); its result. Wakes a thread blocked in a
// read or accept on the descriptor, which stays open.
int shutdown_socket(int descriptor, int how);
// close; its result.
int close_socket(int descriptor);
// Resolves host (IPv4) and connects to its first address on port. -1 when the name does not
// resolve; otherwise the result of connect (0 or -1).
int connect_socket(int descriptor, const char* host, int port);
// accept without peer-address output: the new descriptor or -1.
int accept_socket(int descriptor);
// Binds to the IPv4 wildcard address on port; the result of bind.
int bind_socket(int descriptor, int port);
// Binds to 127.0.0.1 on port (0: an ephemeral port); the result of bind.
int bind_socket_loopback(int descriptor, int port);
// setsockopt at SOL_SOCKET with a 4-byte integer value; its result (0 or -1).
int setopt_socket(int descriptor, int option, int value);
// setsockopt at IPPROTO_TCP (TCP_NODELAY, ...) with a 4-byte integer value; its result.
int setopt_tcp(int descriptor, int option, int value);
// setsockopt of a time-out option (SO_SNDTIMEO, SO_RCVTIMEO) to seconds (0: none); its result.
int setopt_socket_timeout(int descriptor, int option, double seconds);
// The receive buffer size (SO_RCVBUF); 1024 when the query fails.
int socket_internal_buffer_size(int descriptor);
// listen with a backlog of 5; its result.
int socket_listen(int descriptor);
// Reads up to count bytes, retrying on EINTR, until count arrived or end of stream:
// the number read (0 to count), or -1 on error.
int read_bytes(int descriptor, void* buffer, int count);
// Writes all count bytes, retrying on EINTR: count, or -1 on error. Never raises SIGPIPE.
int write_bytes(int descriptor, const void* buffer, int count);
// One buffer to go out whole on one descriptor, for write_all_before().
struct SocketWrite {
    int descriptor = -1;
    const void* buffer = nullptr;
    int count = 0;
    int written = 0;      // bytes handed to the system so far
    bool failed = false;  // an error, or the deadline passed with bytes left
};

// Writes each buffer whole to its descriptor (the descriptors distinct) before deadline:
// non-blocking sends, and whenever some descriptors have no room, one wait (poll) over all of
// them together, so that peers that stopped reading cost no more than the time left until the
// deadline, however many they are. time_point::max() waits as long as it takes. A descriptor
// of -1 fails at once. Retries on EINTR; never raises SIGPIPE. Returns how many buffers went
// out whole; each entry says how far it got.
int write_all_before(SocketWrite* writes, int count,
                     std::chrono::steady_clock::time_point deadline);
// The local port the descriptor is bound to, or 0.
int socket_local_port(int descriptor);
// The peer's dotted IPv4 address copied into text (no terminating NUL), its length in *length:
// 0, or -1 when the peer address can't be obtained.
int socket_address(int descriptor, char* text, int* length);

}  // namespace pointlane

namespace pointlane {

// The IPv4 endpoint the socket is bound to (getsockname) or connected to (getpeername):
// address in host byte order, port. 0, or -1 when it can't be obtained.
int socket_local_endpoint(int descriptor, unsigned* address, int* port);
int socket_peer_endpoint(int descriptor, unsigned* address, int* port);
// 1 when the IPv4 address (host byte order) reaches this machine itself: a loopback address
// or the address of one of its interfaces; 0 when it doesn't; -1 when the interfaces can't be
// listed.
int is_own_address(unsigned address);
// 1 when the TCP connection from local to remote (IPv4, host byte order) is held by a socket
// open in this very process; 0 when no such connection is, or another process holds it; -1
// when the system's connection table can't be read. Linux: the connection's socket inode from
// /proc/net/tcp, looked for among the links in /proc/self/fd.
int is_own_connection(unsigned localAddress, int localPort, unsigned remoteAddress, int remotePort);

}  // namespace pointlane
