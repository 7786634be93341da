#include "game/SelfConnectionGuard.h"

#include <gtest/gtest.h>

#include "../transport/Loopback.h"
#include "ClientServer.h"
#include "InProcessServer.h"

namespace pointlane {
namespace {

TEST(SelfConnectionGuardTest, ConnectionBackReachingTheListenerTheRequestCameInOnIsSeen) {
    // request: a connection our listener accepted; its own end carries the listener's port.
    auto listener = Socket::create(-1);
    ASSERT_TRUE(listener);
    ASSERT_EQ(bind_socket(listener->socketFileDescriptor(), 0), 0);
    ASSERT_EQ(socket_listen(listener->socketFileDescriptor()), 0);
    auto client = loopback::connectTo(listener->localPort());
    ASSERT_TRUE(client);
    auto request = Socket::create(accept_socket(listener->socketFileDescriptor()));
    ASSERT_TRUE(request);

    auto backToListener = loopback::connectTo(listener->localPort());
    ASSERT_TRUE(backToListener);
    EXPECT_TRUE(SelfConnectionGuard::reachesOwnListener(*backToListener, *request));
    auto clientServer = ClientServer::start();
    auto backToClient = loopback::connectTo(clientServer->port());
    ASSERT_TRUE(backToClient);
    EXPECT_FALSE(SelfConnectionGuard::reachesOwnListener(*backToClient, *request));
    backToListener->shutdown();
    EXPECT_FALSE(SelfConnectionGuard::reachesOwnListener(*backToListener, *request));
}

TEST(SelfConnectionGuardTest, FramesFromOurOwnPushConnectionsAreNeverHandled) {
    auto server = testkit::InProcessServer::start();
    ASSERT_TRUE(server);
    // Whatever route led a push connection to our own listener, what it carries is dropped
    // with the connection, unanswered; any other connection is served.
    auto push = loopback::connectTo(server->port(), 5);
    auto other = loopback::connectTo(server->port(), 5);
    ASSERT_TRUE(push && other);
    SelfConnectionGuard::filePush(push);
    for (const auto& socket : {push, other}) {
        ASSERT_TRUE(socket->writeData(loopback::frame("[]")));
    }
    const auto answer = loopback::readAnswer(*other);
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->message, AnswerMessage::unknownRequest);
    EXPECT_FALSE(loopback::readAnswer(*push));
    EXPECT_FALSE(push->readData(1));  // closed by the server, not timed out
}

}  // namespace
}  // namespace pointlane
