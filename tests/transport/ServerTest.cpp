#include <gtest/gtest.h>

#include <sys/socket.h>

#include <memory>
#include <string>
#include <thread>
#include <unordered_set>

#include "Loopback.h"

namespace pointlane {
namespace {

using loopback::connectTo;
using loopback::makePair;
using loopback::RecordingDelegate;
using loopback::RunningServer;

// Writes the peer's address to the client, then returns.
class GreetingThread final : public ServerThread {
  public:
    using ServerThread::ServerThread;
    void run() override {
        const std::string text = clientAddress.value_or("none");
        socket->writeData(Bytes(text.begin(), text.end()));
    }
};

std::shared_ptr<RecordingDelegate> greetingDelegate() {
    return std::make_shared<RecordingDelegate>(
        [](std::shared_ptr<Socket> socket) -> std::shared_ptr<ServerThread> {
            return std::make_shared<GreetingThread>(std::move(socket));
        });
}

TEST(ServerTest, EachConnectionRunsItsObjectAndIsClosedAfterwards) {
    auto delegate = greetingDelegate();
    RunningServer running(delegate);
    ASSERT_NE(running.port(), 0);
    for (int i = 0; i < 2; ++i) {
        auto client = connectTo(running.port());
        ASSERT_NE(client, nullptr);
        EXPECT_EQ(client->readData(9), loopback::bytesOf("127.0.0.1"));
        EXPECT_FALSE(client->readData(1).has_value());  // run() returned: the server closed it
    }
    const auto sockets = delegate->sockets();
    ASSERT_EQ(sockets.size(), 2u);
    EXPECT_TRUE(testkit::waitUntil([&] {
        return sockets[0]->socketFileDescriptor() == -1 && sockets[1]->socketFileDescriptor() == -1;
    }));
}

TEST(ServerTest, ConnectionsWithoutADelegateAreClosed) {
    auto delegate = greetingDelegate();
    RunningServer running(delegate);
    ASSERT_NE(running.port(), 0);
    running.server().delegate.reset();
    auto client = connectTo(running.port());
    ASSERT_NE(client, nullptr);
    EXPECT_FALSE(client->readData(1).has_value());
    EXPECT_TRUE(delegate->sockets().empty());
}

TEST(ServerTest, PortInUseIsReportedAndRunReturns) {
    auto taken = Socket::create(-1);
    ASSERT_NE(taken, nullptr);
    ASSERT_EQ(bind_socket(taken->socketFileDescriptor(), 0), 0);
    ASSERT_EQ(socket_listen(taken->socketFileDescriptor()), 0);
    auto delegate = greetingDelegate();
    auto server = Server::create(delegate);
    ASSERT_NE(server, nullptr);
    ::testing::internal::CaptureStdout();
    server->runOnPort(taken->localPort());  // returns at once
    const std::string printed = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(printed, "Can't bind server socket to port\n");
    EXPECT_EQ(server->listeningPort(), 0);
}

TEST(ServerTest, StopEndsABlockedAcceptLoop) {
    auto delegate = greetingDelegate();
    auto server = Server::create(delegate);
    ASSERT_NE(server, nullptr);
    ::testing::internal::CaptureStdout();
    std::thread listener([&] { server->runOnPort(0); });
    ASSERT_TRUE(testkit::waitUntil([&] { return server->listeningPort() != 0; }));
    server->stop();
    listener.join();  // would hang if the blocked accept were not woken
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Server stopped\n");
    EXPECT_EQ(server->socket->socketFileDescriptor(), -1);
    EXPECT_EQ(server->listeningPort(), 0);
}

TEST(ServerThreadTest, IdentityIsTheDescriptorAndDestructionClosesTheSocket) {
    auto first = makePair();
    auto second = makePair();
    ASSERT_TRUE(first.server && second.server);
    auto a = std::make_shared<ServerThread>(first.server);
    ServerThread sameSocket(first.server);
    ServerThread other(second.server);
    EXPECT_TRUE(*a == sameSocket);
    EXPECT_FALSE(*a == other);
    EXPECT_EQ(a->hash(), static_cast<std::size_t>(first.server->socketFileDescriptor()));
    EXPECT_EQ(a->clientAddress, "127.0.0.1");
    EXPECT_FALSE(a->shouldClose);
    EXPECT_TRUE(a->server.expired());
    a->run();  // does nothing
    EXPECT_NE(first.server->socketFileDescriptor(), -1);
    a.reset();
    EXPECT_EQ(first.server->socketFileDescriptor(), -1);
    EXPECT_FALSE(first.client->readData(1).has_value());  // the peer sees the close
}

}  // namespace
}  // namespace pointlane
