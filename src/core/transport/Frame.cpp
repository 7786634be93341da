#include "transport/Frame.h"

#include <limits>

#include "transport/Socket.h"

namespace pointlane {

std::int32_t asInt32(const Bytes& bytes) {
    if (bytes.size() < 4) {
        return 0;
    }
    const std::uint32_t value =
        static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
        static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
    return static_cast<std::int32_t>(value);
}

Bytes frameHeader(std::int32_t length) {
    const auto value = static_cast<std::uint32_t>(length);
    return Bytes{static_cast<std::uint8_t>(value), static_cast<std::uint8_t>(value >> 8),
                 static_cast<std::uint8_t>(value >> 16), static_cast<std::uint8_t>(value >> 24)};
}

bool sendFrame(Socket& socket, const Bytes& body) {
    if (body.size() > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
        return false;
    }
    if (!socket.writeData(frameHeader(static_cast<std::int32_t>(body.size())))) {
        return false;
    }
    return socket.writeData(body);
}

std::optional<Bytes> receiveFrame(Socket& socket) {
    const std::optional<Bytes> header = socket.readData(4);
    if (!header || header->size() < 4) {
        return std::nullopt;  // a header cut short is the end of the stream too
    }
    const std::int32_t length = asInt32(*header);
    if (length > kMaxFrameBodyLength) {
        // Nobody sends messages this large; refusing before allocating keeps a hostile or
        // confused peer from tying up memory or the connection thread.
        return std::nullopt;
    }
    return socket.readData(length);
}

}  // namespace pointlane
