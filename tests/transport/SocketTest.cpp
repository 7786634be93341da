#include "transport/Socket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "Loopback.h"

namespace pointlane {
namespace {

using loopback::bytesOf;
using loopback::makePair;

bool isOpen(int descriptor) {
    return ::fcntl(descriptor, F_GETFD) != -1;
}

TEST(SocketTest, CreationFailsAndClosesADescriptorThatIsNoSocket) {
    int pipeEnds[2];
    ASSERT_EQ(::pipe(pipeEnds), 0);
    EXPECT_EQ(Socket::create(pipeEnds[0]), nullptr);
    errno = 0;
    EXPECT_EQ(::fcntl(pipeEnds[0], F_GETFD), -1);  // already closed
    EXPECT_EQ(errno, EBADF);
    close_socket(pipeEnds[1]);
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
    pair.client.reset();  // the last holder: closed
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

TEST(SocketTest, ShutdownWakesABlockedReaderAndOnlyDestructionClosesTheDescriptor) {
    auto pair = makePair();
    ASSERT_TRUE(pair.client && pair.server);
    const int descriptor = pair.server->socketFileDescriptor();
    std::optional<Bytes> read = Bytes{};
    std::thread reader([&] { read = pair.server->readData(4); });
    // Give the reader time to block (the outcome is the same if it hasn't yet: a read on a
    // socket already shut down fails at once).
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const auto shut = std::chrono::steady_clock::now();
    pair.server->shutdown();
    reader.join();
    EXPECT_LT(std::chrono::steady_clock::now() - shut,
              std::chrono::seconds(5));  // not the time-out
    EXPECT_FALSE(read.has_value());
    EXPECT_FALSE(pair.client->readData(1).has_value());  // the peer sees the end of the stream
    // The number stays taken while anybody holds the socket, so no new descriptor can get it.
    EXPECT_EQ(pair.server->socketFileDescriptor(), -1);
    EXPECT_TRUE(isOpen(descriptor));
    pair.server.reset();
    EXPECT_FALSE(isOpen(descriptor));
}

}  // namespace
}  // namespace pointlane
