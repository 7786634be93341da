#pragma once

// Plain C-level socket functions over BSD sockets (IPv4 stream sockets only). Each returns a
// plain integer status: -1 on failure unless said otherwise. They keep no state.

namespace pointlane {

// Stands for "writes to a closed peer must not raise SIGPIPE" in setopt_socket: SO_NOSIGPIPE
// where the platform has it; elsewhere setting it succeeds without a system option, since
// write_bytes never raises the signal anyway.
constexpr int kNoSigPipeOption = -0x4e53;

// Resolves host (IPv4) and connects to its first address on port. -1 when the name does not
// resolve; otherwise the result of connect (0 or -1).
int connect_socket(int descriptor, const char* host, int port);
// accept without peer-address output: the new descriptor or -1.
int accept_socket(int descriptor);
// Binds to the IPv4 wildcard address on port; the result of bind.
int bind_socket(int descriptor, int port);
// setsockopt at SOL_SOCKET with a 4-byte integer value; its result (0 or -1).
int setopt_socket(int descriptor, int option, int value);
// The receive buffer size (SO_RCVBUF); 1024 when the query fails.
int socket_internal_buffer_size(int descriptor);
// listen with a backlog of 5; its result.
int socket_listen(int descriptor);
// Reads up to count bytes, retrying on EINTR, until count arrived or end of stream:
// the number read (0 to count), or -1 on error.
int read_bytes(int descriptor, void* buffer, int count);
// Writes all count bytes, retrying on EINTR: count, or -1 on error. Never raises SIGPIPE.
int write_bytes(int descriptor, const void* buffer, int count);
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

}  // namespace pointlane
