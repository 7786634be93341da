#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

#include "support/Bytes.h"

namespace pointlane {

class Socket;

// The frame, the one wire format of every message in both directions: a signed 32-bit
// little-endian length, then that many body bytes (the UTF-8 JSON text of one message).
// Frames follow each other back to back. This is the only code that reads or writes the
// header; every frame we send goes out as one buffer, header and body together, so a peer
// never gets a body without its length.

// The largest body we send: what the header can announce. Bodies we send are built by us from
// data already accepted, and may rightly be larger than any one frame we accept (a login
// answer lists every player's name; a relayed deal carries its data base64-encoded again).
constexpr std::int32_t kMaxSentBodyLength = std::numeric_limits<std::int32_t>::max();
// The largest body we accept. A peer's declared length above this ends the connection before
// anything is allocated: no client sends messages this large, and a hostile or confused peer
// must not tie up memory or a connection thread.
constexpr std::int32_t kMaxReceivedBodyLength = 1 << 20;

// When a write gives up; kNoDeadline waits as long as it takes.
using Deadline = std::chrono::steady_clock::time_point;
constexpr Deadline kNoDeadline = Deadline::max();

// The first four bytes as a signed 32-bit little-endian integer; 0 for an empty buffer.
std::int32_t asInt32(const Bytes& bytes);
// The 4-byte header announcing a body of `length` bytes.
Bytes frameHeader(std::int32_t length);
// Header and body in one buffer; nothing when the body is longer than kMaxSentBodyLength.
std::optional<Bytes> encodeFrame(const Bytes& body);

// Sends body as one frame, waiting for room no later than deadline. True when the whole frame
// went out. A frame that went out only in part leaves the stream unusable (the peer would read
// the next frame from inside this one), so a failed write shuts the socket down and every
// later send on it fails at once. A body that can't be framed is not sent and changes nothing.
bool sendFrame(Socket& socket, const Bytes& body, Deadline deadline = kNoDeadline);

// One frame on its way to one socket, for sendFrames().
struct OutgoingFrame {
    std::shared_ptr<Socket> socket;
    Bytes body;
    bool sent = false;  // set by sendFrames(): the whole frame went out
};
// Sends each body as one frame to its socket (the sockets distinct), all together: whenever
// some have no room, one wait covers them all, so that any number of peers that stopped
// reading cost, together, no more than the time until deadline. Failures are as in
// sendFrame(), each for its own socket only.
void sendFrames(std::vector<OutgoingFrame>& frames, Deadline deadline);

// Reads one frame body. Nothing means the connection is over: end of stream or an error before
// a whole header, a header cut short, or a length above kMaxReceivedBodyLength. A length of 0
// or below gives an empty body; a peer that closes mid-body gives the bytes that arrived.
std::optional<Bytes> receiveFrame(Socket& socket);

// Cuts frames out of a stream whose bytes arrive in pieces of any size (from an event loop's
// socket), by the rules of receiveFrame(): a declared length above kMaxReceivedBodyLength fails
// the stream before anything is allocated for it, a length of 0 or below gives an empty body.
// A failed stream gives no more bodies; its connection must be dropped.
//
// Threading: one thread at a time.
class FrameReader final {
  public:
    // Adds the next bytes of the stream; ignored once the stream failed.
    void append(const char* bytes, std::size_t count);
    // The next whole body, or nothing until one is whole (or once the stream failed).
    std::optional<Bytes> next();
    bool failed() const { return failed_; }

  private:
    Bytes buffer_;           // bytes received and not yet handed out, from start_ on
    std::size_t start_ = 0;  // where the next frame's header begins in buffer_
    bool failed_ = false;
};

}  // namespace pointlane
