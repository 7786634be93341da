#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "Loopback.h"

namespace pointlane {
namespace {

using loopback::bytesOf;
using loopback::makePair;

TEST(SocketFunctionsTest, PlainValuesForEdgeCases) {
    EXPECT_EQ(socket_internal_buffer_size(-1), 1024);
    char byte = 0;
    EXPECT_EQ(read_bytes(-1, &byte, 0), 0);  // no system call for nothing
    EXPECT_EQ(write_bytes(-1, &byte, 0), 0);
    EXPECT_EQ(read_bytes(-1, &byte, 1), -1);
    EXPECT_EQ(write_bytes(-1, &byte, 1), -1);
    EXPECT_EQ(setopt_socket(-1, SO_KEEPALIVE, 1), -1);
    EXPECT_EQ(setopt_socket(-1, kNoSigPipeOption, 1), -1);
    int length = 0;
    EXPECT_EQ(socket_address(-1, &byte, &length), -1);
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(connect_socket(fd, "", 1), -1);  // does not resolve
    ::close(fd);
}

TEST(SocketFunctionsTest, AddressIsCopiedWithoutTerminator) {
    auto pair = makePair();
    ASSERT_TRUE(pair.client && pair.server);
    char text[64];
    std::memset(text, 'x', sizeof(text));
    int length = 0;
    ASSERT_EQ(socket_address(pair.server->socketFileDescriptor(), text, &length), 0);
    EXPECT_EQ(length, 9);
    EXPECT_EQ(std::string(text, 10), "127.0.0.1x");
    EXPECT_EQ(pair.server->address(), "127.0.0.1");
    EXPECT_EQ(pair.server->address()->size(), 9u);
}

TEST(SocketTest, CreationFailsAndClosesADescriptorThatIsNoSocket) {
    int pipeEnds[2];
    ASSERT_EQ(::pipe(pipeEnds), 0);
    EXPECT_EQ(Socket::create(pipeEnds[0]), nullptr);
    errno = 0;
    EXPECT_EQ(::fcntl(pipeEnds[0], F_GETFD), -1);  // already closed
    EXPECT_EQ(errno, EBADF);
    ::close(pipeEnds[1]);
}

TEST(SocketTest, CountsOfZeroOrBelowGiveEmptyBuffersUntilShutDown) {
    auto pair = makePair();
    ASSERT_TRUE(pair.client && pair.server);
    EXPECT_EQ(pair.server->readData(0), Bytes{});
    EXPECT_EQ(pair.server->readData(-5), Bytes{});
    EXPECT_TRUE(pair.server->writeData(Bytes{}));
    EXPECT_NE(pair.server->localPort(), 0);
    EXPECT_TRUE(pair.server->setSendTimeout(1.5));

    pair.server->shutdown();
    pair.server->shutdown();  // idempotent
    EXPECT_EQ(pair.server->socketFileDescriptor(), -1);
    EXPECT_FALSE(pair.server->readData(0).has_value());
    EXPECT_FALSE(pair.server->readData(4).has_value());
    EXPECT_FALSE(pair.server->writeData(Bytes{}));
    EXPECT_FALSE(pair.server->writeData(bytesOf("x")));
    EXPECT_FALSE(pair.server->address().has_value());
    EXPECT_EQ(pair.server->localPort(), 0);
    EXPECT_FALSE(sendFrame(*pair.server, bytesOf("{}")));
}

TEST(SocketTest, EndOfStreamGivesNothingFirstAndThePartialBodyLater) {
    auto pair = makePair();
    ASSERT_TRUE(pair.client && pair.server);
    ASSERT_TRUE(pair.client->writeData(Bytes{10, 0, 0, 0, 'a', 'b', 'c'}));
    pair.client->shutdown();
    EXPECT_EQ(pair.server->readData(4), (Bytes{10, 0, 0, 0}));
    EXPECT_EQ(pair.server->readData(10), bytesOf("abc"));  // 3 of 10 announced
    EXPECT_FALSE(pair.server->readData(4).has_value());
}

TEST(SocketTest, WritingToAClosedPeerFailsWithoutKillingTheProcess) {
    auto pair = makePair();
    ASSERT_TRUE(pair.client && pair.server);
    pair.client->shutdown();
    // The first writes may still be accepted locally; once the peer's reset is back every write
    // fails. Without the no-SIGPIPE handling the process would die here.
    const Bytes chunk(64 * 1024, 'x');
    bool failed = false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!failed && std::chrono::steady_clock::now() < deadline) {
        failed = !pair.server->writeData(chunk);
    }
    EXPECT_TRUE(failed);
    EXPECT_FALSE(sendFrame(*pair.server, bytesOf("{}")));
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
}

TEST(FrameTest, ReceivesFramesBackToBackAndRefusesOverlongOnes) {
    auto pair = makePair();
    ASSERT_TRUE(pair.client && pair.server);
    // A megabyte doesn't fit the socket buffers: write while the other end reads.
    std::thread writer([&] {
        EXPECT_TRUE(sendFrame(*pair.client, bytesOf("[1,2]")));
        EXPECT_TRUE(sendFrame(*pair.client, Bytes{}));
        EXPECT_TRUE(pair.client->writeData(Bytes{0xF0, 0xFF, 0xFF, 0xFF}));  // negative length
        EXPECT_TRUE(sendFrame(*pair.client, Bytes(kMaxFrameBodyLength, ' ')));
        EXPECT_TRUE(pair.client->writeData(frameHeader(kMaxFrameBodyLength + 1)));
    });
    EXPECT_EQ(receiveFrame(*pair.server), bytesOf("[1,2]"));
    EXPECT_EQ(receiveFrame(*pair.server), Bytes{});
    EXPECT_EQ(receiveFrame(*pair.server), Bytes{});
    const auto largest = receiveFrame(*pair.server);
    ASSERT_TRUE(largest.has_value());
    EXPECT_EQ(largest->size(), static_cast<std::size_t>(kMaxFrameBodyLength));
    // Refused at once: the reader does not wait for a body that never comes.
    EXPECT_FALSE(receiveFrame(*pair.server).has_value());
    writer.join();
}

}  // namespace
}  // namespace pointlane
