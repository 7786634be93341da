#include "transport/Frame.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

#include "Loopback.h"

namespace pointlane {
namespace {

using loopback::bytesOf;
using loopback::makePair;
using Clock = std::chrono::steady_clock;

// Everything the socket receives until the end of the stream.
Bytes readToEnd(Socket& socket) {
    Bytes all;
    while (auto chunk = socket.readData(1 << 16)) {
        all.insert(all.end(), chunk->begin(), chunk->end());
    }
    return all;
}

TEST(FrameTest, HeaderIsLittleEndianSigned) {
    EXPECT_EQ(asInt32(Bytes{}), 0);
    EXPECT_EQ(asInt32(Bytes{5, 0, 0, 0}), 5);
    EXPECT_EQ(asInt32(Bytes{0, 0, 0, 5}), 83886080);
    EXPECT_EQ(asInt32(Bytes{0xFF, 0xFF, 0xFF, 0xFF}), -1);
    EXPECT_EQ(asInt32(Bytes{1, 2, 3, 4, 99}), 0x04030201);
    EXPECT_EQ(frameHeader(5), (Bytes{5, 0, 0, 0}));
    EXPECT_EQ(frameHeader(0x01020304), (Bytes{4, 3, 2, 1}));
    EXPECT_EQ(frameHeader(-2), (Bytes{0xFE, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(encodeFrame(bytesOf("{}")), (Bytes{2, 0, 0, 0, '{', '}'}));
    EXPECT_EQ(encodeFrame(Bytes{}), (Bytes{0, 0, 0, 0}));
}

TEST(FrameTest, ReceivesFramesBackToBackAndRefusesOverlongOnes) {
    auto pair = makePair();
    ASSERT_TRUE(pair.client && pair.server);
    // A megabyte doesn't fit the socket buffers: write while the other end reads.
    std::thread writer([&] {
        EXPECT_TRUE(sendFrame(*pair.client, bytesOf("[1,2]")));
        EXPECT_TRUE(sendFrame(*pair.client, Bytes{}));
        EXPECT_TRUE(pair.client->writeData(Bytes{0xF0, 0xFF, 0xFF, 0xFF}));  // negative length
        EXPECT_TRUE(sendFrame(*pair.client, Bytes(kMaxReceivedBodyLength, ' ')));
        EXPECT_TRUE(pair.client->writeData(frameHeader(kMaxReceivedBodyLength + 1)));
    });
    EXPECT_EQ(receiveFrame(*pair.server), bytesOf("[1,2]"));
    EXPECT_EQ(receiveFrame(*pair.server), Bytes{});
    EXPECT_EQ(receiveFrame(*pair.server), Bytes{});
    const auto largest = receiveFrame(*pair.server);
    ASSERT_TRUE(largest.has_value());
    EXPECT_EQ(largest->size(), static_cast<std::size_t>(kMaxReceivedBodyLength));
    // Refused at once: the reader does not wait for a body that never comes.
    EXPECT_FALSE(receiveFrame(*pair.server).has_value());
    writer.join();

    // A header cut short by the end of the stream is the end, not an empty frame.
    auto cut = makePair();
    ASSERT_TRUE(cut.client && cut.server);
    ASSERT_TRUE(cut.client->writeData(Bytes{0, 0}));
    cut.client->shutdown();
    EXPECT_FALSE(receiveFrame(*cut.server).has_value());
}

TEST(FrameTest, ReaderCutsFramesOutOfPiecesOfAnySizeAndFailsOnAbsurdLengths) {
    Bytes stream = *encodeFrame(bytesOf("{\"a\":1}"));
    for (const Bytes& next : {Bytes{}, bytesOf("[2]")}) {
        const Bytes frame = *encodeFrame(next);
        stream.insert(stream.end(), frame.begin(), frame.end());
    }
    const Bytes negative{0xF0, 0xFF, 0xFF, 0xFF};  // a length below 0 is an empty body
    stream.insert(stream.end(), negative.begin(), negative.end());
    const std::vector<Bytes> expected{bytesOf("{\"a\":1}"), Bytes{}, bytesOf("[2]"), Bytes{}};
    // Byte by byte (split headers), three at a time, and the whole stream in one chunk.
    for (const std::size_t piece : {std::size_t{1}, std::size_t{3}, stream.size()}) {
        FrameReader reader;
        std::vector<Bytes> bodies;
        for (std::size_t at = 0; at < stream.size(); at += piece) {
            const std::size_t count = std::min(piece, stream.size() - at);
            reader.append(reinterpret_cast<const char*>(stream.data() + at), count);
            while (auto body = reader.next()) {
                bodies.push_back(*body);
            }
        }
        EXPECT_EQ(bodies, expected) << piece;
        EXPECT_FALSE(reader.failed());
    }
    // A declared length above the limit fails the stream at once, before any body byte came,
    // and nothing after it is ever handed out.
    FrameReader reader;
    Bytes absurd = frameHeader(kMaxReceivedBodyLength + 1);
    const Bytes after = *encodeFrame(bytesOf("[3]"));
    absurd.insert(absurd.end(), after.begin(), after.end());
    reader.append(reinterpret_cast<const char*>(absurd.data()), absurd.size());
    EXPECT_FALSE(reader.next());
    EXPECT_TRUE(reader.failed());
    reader.append(reinterpret_cast<const char*>(after.data()), after.size());
    EXPECT_FALSE(reader.next());
    // The largest accepted body still comes through.
    FrameReader largest;
    const Bytes big = *encodeFrame(Bytes(kMaxReceivedBodyLength, 'x'));
    largest.append(reinterpret_cast<const char*>(big.data()), big.size());
    EXPECT_EQ(largest.next().value_or(Bytes{}).size(),
              static_cast<std::size_t>(kMaxReceivedBodyLength));
}

TEST(FrameTest, StalledPeersCostOneDeadlineTogetherAndNeverGetAFrameAfterACutOne) {
    constexpr auto kDeadline = std::chrono::milliseconds(1000);
    auto healthy = makePair();
    std::vector<loopback::SocketPair> stalled{makePair(), makePair(), makePair()};
    ASSERT_TRUE(healthy.client);
    for (const auto& pair : stalled) {
        ASSERT_TRUE(pair.client);
        setopt_socket(pair.server->socketFileDescriptor(), SO_SNDBUF, 64 * 1024);
    }
    // Much more than the socket buffers of a peer that never reads hold.
    const Bytes body(2 << 20, 'a');
    std::vector<OutgoingFrame> frames{{stalled[0].server, body},
                                      {healthy.server, body},
                                      {stalled[1].server, body},
                                      {stalled[2].server, body}};
    Bytes received;
    Clock::time_point healthyDone;
    std::thread reader([&] {
        received =
            healthy.client->readData(static_cast<std::int32_t>(body.size() + 4)).value_or(Bytes{});
        healthyDone = Clock::now();
    });
    const auto started = Clock::now();
    sendFrames(frames, started + kDeadline);
    const auto took = Clock::now() - started;
    reader.join();
    // One deadline for the three stalled peers together, and the healthy one isn't held up.
    EXPECT_GE(took, kDeadline - std::chrono::milliseconds(10));
    EXPECT_LT(took, 2 * kDeadline);
    EXPECT_LT(healthyDone - started, kDeadline);
    EXPECT_TRUE(frames[1].sent);
    EXPECT_EQ(received, *encodeFrame(body));
    EXPECT_NE(healthy.server->socketFileDescriptor(), -1);

    for (const std::size_t i : {0u, 2u, 3u}) {
        EXPECT_FALSE(frames[i].sent) << i;
        EXPECT_EQ(frames[i].socket->socketFileDescriptor(), -1) << i;  // shut down
    }
    // Later frames to a shut peer fail at once and add nothing to its stream, while the
    // healthy peer goes on getting its frames in order.
    std::vector<OutgoingFrame> next{{stalled[0].server, bytesOf("[2]")},
                                    {healthy.server, bytesOf("[3]")}};
    const auto again = Clock::now();
    sendFrames(next, again + kDeadline);
    EXPECT_LT(Clock::now() - again, kDeadline / 2);
    EXPECT_FALSE(next[0].sent);
    EXPECT_TRUE(next[1].sent);
    EXPECT_FALSE(sendFrame(*stalled[0].server, bytesOf("[4]")));
    EXPECT_EQ(receiveFrame(*healthy.client), bytesOf("[3]"));
    // What a stalled peer reads once it reads again: the start of the cut frame, then the
    // end of the stream.
    const Bytes cut = readToEnd(*stalled[0].client);
    ASSERT_GE(cut.size(), 4u);
    EXPECT_LT(cut.size(), body.size() + 4);
    EXPECT_EQ(Bytes(cut.begin(), cut.begin() + 4),
              frameHeader(static_cast<std::int32_t>(body.size())));
    EXPECT_EQ(std::count(cut.begin() + 4, cut.end(), 'a'), static_cast<long>(cut.size() - 4));
}

}  // namespace
}  // namespace pointlane
