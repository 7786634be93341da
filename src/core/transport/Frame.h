#pragma once

#include <cstdint>
#include <optional>

#include "support/Bytes.h"

namespace pointlane {

class Socket;

// Frames: a signed 32-bit little-endian body length, then the body (UTF-8 JSON).

// A declared body length above this ends the connection before anything is allocated.
constexpr std::int32_t kMaxFrameBodyLength = 1 << 20;

// The first four bytes as a signed 32-bit little-endian integer; 0 for an empty buffer.
std::int32_t asInt32(const Bytes& bytes);
// The 4-byte little-endian header for a body of `length` bytes.
Bytes frameHeader(std::int32_t length);

// Sends one frame as two writes: the header, then (only when the header went out) the body.
// True when both writes succeeded.
bool sendFrame(Socket& socket, const Bytes& body);

// Reads one frame body. Nothing means the connection is over: end of stream or an error before
// a whole header, a header cut short, or a length above kMaxFrameBodyLength. A length of 0 or
// below gives an empty body; a peer that closes mid-body gives the bytes that arrived.
std::optional<Bytes> receiveFrame(Socket& socket);

}  // namespace pointlane
