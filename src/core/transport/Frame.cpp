#include "transport/Frame.h"

#include <algorithm>

#include "transport/Socket.h"
#include "transport/SocketFunctions.h"

namespace pointlane {

namespace {

std::int32_t littleEndian32(const std::uint8_t* bytes) {
    const std::uint32_t value =
        static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
        static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
    return static_cast<std::int32_t>(value);
}

// The body length a received header announces, or nothing when the stream must end.
std::optional<std::int32_t> acceptedLength(const std::uint8_t* header) {
    const std::int32_t length = littleEndian32(header);
    if (length > kMaxReceivedBodyLength) {
        return std::nullopt;
    }
    return std::max<std::int32_t>(length, 0);
}

}  // namespace

std::int32_t asInt32(const Bytes& bytes) {
    return bytes.size() < 4 ? 0 : littleEndian32(bytes.data());
}

Bytes frameHeader(std::int32_t length) {
    const auto value = static_cast<std::uint32_t>(length);
    return Bytes{static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8),
                 static_cast<std::uint8_t>(value >> 16), static_cast<std::uint8_t>(value >> 24)};
}

std::optional<Bytes> encodeFrame(const Bytes& body) {
    if (body.size() > static_cast<std::size_t>(kMaxSentBodyLength) - 4) {
        return std::nullopt;  // header and body together must fit the length of one write
    }
    Bytes frame = frameHeader(static_cast<std::int32_t>(body.size()));
    frame.reserve(4 + body.size());
    frame.insert(frame.end(), body.begin(), body.end());
    return frame;
}

bool sendFrame(Socket& socket, const Bytes& body, Deadline deadline) {
    const std::optional<Bytes> frame = encodeFrame(body);
    if (!frame) {
        return false;
    }
    SocketWrite write;
    write.descriptor = socket.socketFileDescriptor();
    write.buffer = frame->data();
    write.count = static_cast<int>(frame->size());
    if (write_all_before(&write, 1, deadline) == 1) {
        return true;
    }
    socket.shutdown();
    return false;
}

void sendFrames(std::vector<OutgoingFrame>& frames, Deadline deadline) {
    std::vector<Bytes> encoded;
    std::vector<SocketWrite> writes;
    std::vector<OutgoingFrame*> writing;
    encoded.reserve(frames.size());
    writes.reserve(frames.size());
    writing.reserve(frames.size());
    for (OutgoingFrame& frame : frames) {
        frame.sent = false;
        std::optional<Bytes> bytes = frame.socket ? encodeFrame(frame.body) : std::nullopt;
        if (!bytes) {
            continue;
        }
        encoded.push_back(std::move(*bytes));
        SocketWrite write;
        write.descriptor = frame.socket->socketFileDescriptor();
        write.buffer = encoded.back().data();
        write.count = static_cast<int>(encoded.back().size());
        writes.push_back(write);
        writing.push_back(&frame);
    }
    write_all_before(writes.data(), static_cast<int>(writes.size()), deadline);
    for (std::size_t i = 0; i < writes.size(); ++i) {
        writing[i]->sent = !writes[i].failed;
        if (writes[i].failed) {
            writing[i]->socket->shutdown();
        }
    }
}

std::optional<Bytes> receiveFrame(Socket& socket) {
    const std::optional<Bytes> header = socket.readData(4);
    if (!header || header->size() < 4) {
        return std::nullopt;  // a header cut short is the end of the stream too
    }
    const std::optional<std::int32_t> length = acceptedLength(header->data());
    if (!length) {
        return std::nullopt;
    }
    return socket.readData(*length);
}

void FrameReader::append(const char* bytes, std::size_t count) {
    if (failed_ || count == 0) {
        return;
    }
    if (start_ > 0 && start_ >= buffer_.size() / 2) {
        // Drop what was handed out before the buffer grows again.
        buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(start_));
        start_ = 0;
    }
    const auto* first = reinterpret_cast<const std::uint8_t*>(bytes);
    buffer_.insert(buffer_.end(), first, first + count);
}

std::optional<Bytes> FrameReader::next() {
    if (failed_ || buffer_.size() - start_ < 4) {
        return std::nullopt;
    }
    const std::optional<std::int32_t> length = acceptedLength(buffer_.data() + start_);
    if (!length) {
        failed_ = true;
        buffer_ = Bytes{};
        start_ = 0;
        return std::nullopt;
    }
    const std::size_t end = start_ + 4 + static_cast<std::size_t>(*length);
    if (buffer_.size() < end) {
        return std::nullopt;
    }
    Bytes body(buffer_.begin() + static_cast<std::ptrdiff_t>(start_ + 4),
               buffer_.begin() + static_cast<std::ptrdiff_t>(end));
    start_ = end;
    if (start_ == buffer_.size()) {
        buffer_.clear();
        start_ = 0;
    }
    return body;
}

}  // namespace pointlane
