#include "transport/SocketFunctions.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <string>

#include "Loopback.h"

namespace pointlane {
namespace {

using loopback::makePair;
using Clock = std::chrono::steady_clock;

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
    const int fd = create_socket();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(connect_socket(fd, "", 1), -1);  // does not resolve
    close_socket(fd);
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

TEST(SocketFunctionsTest, WritesBeforeADeadlineGoOnWhereThereIsRoomAndGiveUpWhereThereIsNone) {
    auto reading = makePair();
    auto stalled = makePair();
    ASSERT_TRUE(reading.client && stalled.client);
    ASSERT_EQ(setopt_socket(stalled.server->socketFileDescriptor(), SO_SNDBUF, 64 * 1024), 0);
    // Much more than the socket buffers of a peer that never reads hold.
    const Bytes big(2 << 20, 'x');
    const char small[] = "abc";
    SocketWrite writes[4];
    writes[0] = {stalled.server->socketFileDescriptor(), big.data(), static_cast<int>(big.size())};
    writes[1] = {reading.server->socketFileDescriptor(), small, 3};
    writes[2] = {-1, small, 3};
    writes[3] = {reading.client->socketFileDescriptor(), small, 0};
    const auto started = Clock::now();
    EXPECT_EQ(write_all_before(writes, 4, started + std::chrono::milliseconds(300)), 2);
    const auto took = Clock::now() - started;
    EXPECT_GE(took, std::chrono::milliseconds(290));
    EXPECT_LT(took, std::chrono::seconds(5));
    EXPECT_TRUE(writes[0].failed);
    EXPECT_GT(writes[0].written, 0);
    EXPECT_LT(writes[0].written, writes[0].count);
    EXPECT_FALSE(writes[1].failed);
    EXPECT_EQ(writes[1].written, 3);
    EXPECT_TRUE(writes[2].failed);
    EXPECT_EQ(writes[2].written, 0);
    EXPECT_FALSE(writes[3].failed);
    EXPECT_EQ(reading.client->readData(3), jsontext::bytesOf("abc"));

    // Without a deadline the writer waits for room until the peer has read everything.
    std::thread reader([&] {
        std::size_t got = 0;
        while (auto chunk = stalled.client->readData(1 << 16)) {
            got += chunk->size();
            if (got >= big.size()) {
                break;
            }
        }
        EXPECT_EQ(got, big.size());
    });
    SocketWrite rest{stalled.server->socketFileDescriptor(), big.data() + writes[0].written,
                     writes[0].count - writes[0].written};
    EXPECT_EQ(write_all_before(&rest, 1, Clock::time_point::max()), 1);
    reader.join();
    // A peer that is gone fails the write instead of raising SIGPIPE.
    reading.client->shutdown();
    SocketWrite gone{reading.server->socketFileDescriptor(), big.data(),
                     static_cast<int>(big.size())};
    EXPECT_EQ(write_all_before(&gone, 1, Clock::now() + std::chrono::seconds(10)), 0);
    EXPECT_TRUE(gone.failed);
}

}  // namespace
}  // namespace pointlane
