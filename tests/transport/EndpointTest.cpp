#include "transport/Endpoint.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>

#include <cstdio>
#include <string>

#include "Loopback.h"

namespace pointlane {
namespace {

std::uint32_t address(const char* dotted) {
    in_addr parsed{};
    inet_pton(AF_INET, dotted, &parsed);
    return ntohl(parsed.s_addr);
}

TEST(EndpointTest, BothEndsOfAConnectionAreReadAndAClosedSocketHasNone) {
    auto pair = loopback::makePair();
    ASSERT_TRUE(pair.client && pair.server);
    const auto clientEnd = Endpoint::local(*pair.client);
    const auto serverEnd = Endpoint::local(*pair.server);
    ASSERT_TRUE(clientEnd && serverEnd);
    EXPECT_EQ(Endpoint::peer(*pair.server), clientEnd);
    EXPECT_EQ(Endpoint::peer(*pair.client), serverEnd);
    EXPECT_EQ(clientEnd->address, address("127.0.0.1"));
    EXPECT_EQ(serverEnd->port, pair.server->localPort());
    pair.client->shutdown();
    EXPECT_FALSE(Endpoint::local(*pair.client));
    EXPECT_FALSE(Endpoint::peer(*pair.client));
}

TEST(EndpointTest, OwnAddressesAreLoopbackAnyAndEveryInterfacesButNoOtherHosts) {
    for (const char* own : {"127.0.0.1", "127.0.0.2", "127.255.255.254", "0.0.0.0"}) {
        EXPECT_TRUE((Endpoint{address(own), 1}).isOwnAddress()) << own;
    }
    // The machine's LAN addresses, whatever they are here; nothing is sent to them.
    ifaddrs* interfaces = nullptr;
    ASSERT_EQ(getifaddrs(&interfaces), 0);
    for (const ifaddrs* entry = interfaces; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET) {
            const auto* in = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
            EXPECT_TRUE((Endpoint{ntohl(in->sin_addr.s_addr), 1}).isOwnAddress())
                << entry->ifa_name;
        }
    }
    freeifaddrs(interfaces);
    // Documentation networks: never assigned to a real interface.
    for (const char* other : {"192.0.2.1", "198.51.100.7", "203.0.113.255"}) {
        EXPECT_FALSE((Endpoint{address(other), 1}).isOwnAddress()) << other;
    }
}

TEST(EndpointTest, OnlyConnectionsHeldByThisProcessAreOwn) {
    auto pair = loopback::makePair();
    ASSERT_TRUE(pair.client && pair.server);
    const auto clientEnd = Endpoint::local(*pair.client);
    const auto serverEnd = Endpoint::local(*pair.server);
    ASSERT_TRUE(clientEnd && serverEnd);
    EXPECT_TRUE(clientEnd->isOwnConnectionTo(*serverEnd));
    EXPECT_TRUE(serverEnd->isOwnConnectionTo(*clientEnd));
    EXPECT_FALSE(clientEnd->isOwnConnectionTo(Endpoint{serverEnd->address, serverEnd->port + 1}));

    // The same kind of connection, made by another program on this machine.
    auto listener = Socket::create(-1);
    ASSERT_TRUE(listener);
    ASSERT_EQ(bind_socket_loopback(listener->socketFileDescriptor(), 0), 0);
    ASSERT_EQ(socket_listen(listener->socketFileDescriptor()), 0);
    listener->setReceiveTimeout(10);  // bounds the accept below
    const std::string command = "exec bash -c 'exec 3<>/dev/tcp/127.0.0.1/" +
                                std::to_string(listener->localPort()) + " && read -t 10 <&3'";
    std::FILE* other = popen(command.c_str(), "r");
    ASSERT_NE(other, nullptr);
    auto accepted = Socket::create(accept_socket(listener->socketFileDescriptor()));
    ASSERT_TRUE(accepted);
    const auto theirs = Endpoint::peer(*accepted);
    const auto ours = Endpoint::local(*accepted);
    ASSERT_TRUE(theirs && ours);
    EXPECT_FALSE(theirs->isOwnConnectionTo(*ours));
    EXPECT_TRUE(ours->isOwnConnectionTo(*theirs));
    accepted->shutdown();  // the other program's read ends
    pclose(other);
}

}  // namespace
}  // namespace pointlane
