#include <gtest/gtest.h>

#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

#include "Loopback.h"
#include "game/PokerThread.h"

namespace pointlane {
namespace {

using loopback::bytesOf;
using loopback::connectTo;
using loopback::frame;
using loopback::readAnswer;
using loopback::RecordingDelegate;
using loopback::RunningServer;

// Answers every request with OK, echoing its token and putting its code in "info".
void echo(const Request& request, const std::shared_ptr<Socket>& socket) {
    Answer answer;
    answer.token = request.token.value_or("");
    answer.info = toString(request.request);
    if (const auto body = answer.json()) {
        sendFrame(*socket, *body);
    }
}

PokerThread::Handlers echoHandlers() {
    return {echo, echo, echo, echo, echo, echo, echo};
}

std::string requestBody(int code, const std::string& token) {
    return R"({"request":)" + std::to_string(code) + R"(,"token":")" + token + R"("})";
}

class DispatchTest : public ::testing::Test {
  protected:
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>(
        [](std::shared_ptr<Socket> socket) -> std::shared_ptr<ServerThread> {
            return std::make_shared<PokerThread>(std::move(socket), echoHandlers());
        });
    RunningServer running{delegate};

    std::shared_ptr<Socket> connect() {
        auto socket = connectTo(running.port());
        EXPECT_NE(socket, nullptr);
        return socket;
    }

    // Sends a logout with the token and expects its echo next on the connection.
    void expectServed(Socket& client, const std::string& token) {
        ASSERT_TRUE(client.writeData(frame(requestBody(2, token))));
        const auto answer = readAnswer(client);
        ASSERT_TRUE(answer.has_value());
        EXPECT_EQ(answer->code, 0);
        EXPECT_EQ(answer->token, token);
        EXPECT_EQ(answer->info, "logout");
    }
};

void expectUnknownRequest(Socket& client) {
    const auto body = receiveFrame(client);
    ASSERT_TRUE(body.has_value());
    const auto parsed = nlohmann::json::parse(body->begin(), body->end(), nullptr, false);
    EXPECT_EQ(parsed,
              nlohmann::json::parse(R"({"code":-1,"message":"unknownRequest","token":""})"));
}

TEST_F(DispatchTest, LittleEndianHeaderAndBodyMakeOneRequest) {
    auto client = connect();
    const std::string body = requestBody(4, "abc");
    Bytes bytes{static_cast<std::uint8_t>(body.size()), 0, 0, 0};
    bytes.insert(bytes.end(), body.begin(), body.end());
    // Split header and body across writes: the reader must wait for exact lengths.
    ASSERT_TRUE(client->writeData(Bytes(bytes.begin(), bytes.begin() + 2)));
    ASSERT_TRUE(client->writeData(Bytes(bytes.begin() + 2, bytes.end())));
    const auto answer = readAnswer(*client);
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(answer->token, "abc");
    EXPECT_EQ(answer->info, "play");
}

TEST_F(DispatchTest, UndecodableBodiesGetUnknownRequestAndTheConnectionStaysUsable) {
    auto client = connect();
    ::testing::internal::CaptureStdout();
    ASSERT_TRUE(client->writeData(frame("[]")));
    expectUnknownRequest(*client);
    ASSERT_TRUE(client->writeData(frame("")));  // a zero-length header
    expectUnknownRequest(*client);
    ASSERT_TRUE(client->writeData(Bytes{0xFF, 0xFF, 0xFF, 0xFF}));  // -1: an empty body too
    expectUnknownRequest(*client);
    ASSERT_TRUE(client->writeData(frame(R"({"request":9})")));
    expectUnknownRequest(*client);
    ASSERT_TRUE(client->writeData(frame("{not json")));
    expectUnknownRequest(*client);
    const std::string printed = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(printed.find("init(usingJson:)(41): Serialization error: "), std::string::npos);
    expectServed(*client, "after");
}

TEST_F(DispatchTest, TheWholeBodyIsTheRequestAndItsNestingIsBounded) {
    auto client = connect();
    const std::string play = requestBody(4, "whole");
    // depth 2 + 62 = 64 levels: still a request.
    const std::string deepest =
        R"({"request":4,"token":"deep","x":)" + std::string(63, '[') + std::string(63, ']') + "}";
    ::testing::internal::CaptureStdout();
    ASSERT_TRUE(client->writeData(frame(play + std::string(1, '\0') + R"({"request":2})")));
    expectUnknownRequest(*client);
    ASSERT_TRUE(client->writeData(frame(play + " {}")));
    expectUnknownRequest(*client);
    ASSERT_TRUE(client->writeData(frame(R"({"request":4,"token":"x","x":)" + std::string(64, '[') +
                                        std::string(64, ']') + "}")));
    expectUnknownRequest(*client);
    ASSERT_TRUE(client->writeData(frame(std::string(1 << 20, '['))));
    expectUnknownRequest(*client);
    const std::string printed = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(printed.find("init(usingJson:)(41): Serialization error: "), std::string::npos);
    EXPECT_NE(printed.find("deeper than 64"), std::string::npos);

    // White space around the value is part of JSON.
    ASSERT_TRUE(client->writeData(frame(" \r\n\t" + play + "\n ")));
    auto answer = readAnswer(*client);
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(answer->token, "whole");
    ASSERT_TRUE(client->writeData(frame(deepest)));
    answer = readAnswer(*client);
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(answer->token, "deep");
}

TEST_F(DispatchTest, ServerOnlyCodesGetNoAnswer) {
    auto client = connect();
    ASSERT_TRUE(client->writeData(frame(requestBody(6, "added"))));
    ASSERT_TRUE(client->writeData(frame(requestBody(7, "removed"))));
    // The first answer on the connection belongs to the request after them.
    expectServed(*client, "next");
}

TEST_F(DispatchTest, OverlongLengthClosesOnlyThatConnection) {
    auto other = connect();
    auto client = connect();
    // Big-endian 5 reads as 83,886,080: far over the limit.
    ASSERT_TRUE(client->writeData(Bytes{0, 0, 0, 5, '{', '}'}));
    EXPECT_FALSE(client->readData(4).has_value());  // closed, not waiting for 80 MB
    expectServed(*other, "still served");
}

TEST_F(DispatchTest, HeaderCutShortEndsTheConnection) {
    for (std::size_t length = 1; length <= 3; ++length) {
        auto client = connect();
        ASSERT_TRUE(client->writeData(Bytes(length, 1)));
        shutdown_socket(client->socketFileDescriptor(), SHUT_WR);
        EXPECT_FALSE(client->readData(1).has_value()) << length << " header bytes";
    }
    // Every server-side descriptor is closed once its run() has returned.
    EXPECT_TRUE(testkit::waitUntil([&] {
        for (const auto& socket : delegate->sockets()) {
            if (socket->socketFileDescriptor() != -1) {
                return false;
            }
        }
        return delegate->sockets().size() == 3;
    }));
}

TEST(DispatchLoopTest, HandlerGetsTheConnectionsOwnSocketAndMayEndTheConnection) {
    auto pair = loopback::makePair();
    ASSERT_TRUE(pair.client && pair.server);
    std::shared_ptr<Socket> seen;
    PokerThread::Handlers handlers;
    PokerThread* self = nullptr;
    handlers.logout = [&](const Request&, const std::shared_ptr<Socket>& socket) {
        seen = socket;
        self->shouldClose = true;
    };
    PokerThread thread(pair.server, handlers);
    self = &thread;
    ASSERT_TRUE(pair.client->writeData(frame(requestBody(2, "x"))));
    ASSERT_TRUE(pair.client->writeData(frame(requestBody(2, "y"))));
    thread.run();  // returns after the first request: shouldClose is honoured
    EXPECT_EQ(seen, pair.server);
    EXPECT_EQ(thread.call.size(), 7u);
    EXPECT_EQ(thread.call.count(RequestCode::playerAdded), 0u);
    EXPECT_EQ(thread.call.count(RequestCode::playerRemoved), 0u);
}

TEST(DispatchLoopTest, RunOnAClosedSocketReturnsWithoutReading) {
    auto pair = loopback::makePair();
    ASSERT_TRUE(pair.client && pair.server);
    ASSERT_TRUE(pair.client->writeData(frame(requestBody(2, "x"))));
    bool called = false;
    PokerThread::Handlers handlers;
    handlers.logout = [&](const Request&, const std::shared_ptr<Socket>&) { called = true; };
    PokerThread thread(pair.server, handlers);
    pair.server->shutdown();
    thread.run();
    EXPECT_FALSE(called);
}

TEST(DispatchConcurrencyTest, HundredConcurrentConnectionsAreAllServed) {
    auto delegate = std::make_shared<RecordingDelegate>(
        [](std::shared_ptr<Socket> socket) -> std::shared_ptr<ServerThread> {
            return std::make_shared<PokerThread>(std::move(socket), echoHandlers());
        });
    RunningServer running(delegate);
    ASSERT_NE(running.port(), 0);
    constexpr int kClients = 100;
    // Connect one after another: the listen backlog is small, and a burst of simultaneous
    // handshakes would only measure the kernel's SYN retransmission. Then all of them talk at
    // once, each on its own connection thread.
    std::vector<std::shared_ptr<Socket>> sockets;
    for (int i = 0; i < kClients; ++i) {
        sockets.push_back(connectTo(running.port()));
        ASSERT_NE(sockets.back(), nullptr) << i;
    }
    ASSERT_TRUE(testkit::waitUntil([&] { return delegate->sockets().size() == kClients; }));
    std::atomic<int> served{0};
    std::vector<std::thread> clients;
    for (int i = 0; i < kClients; ++i) {
        clients.emplace_back([&, i] {
            Socket& client = *sockets[i];
            const std::string token = "client-" + std::to_string(i);
            Bytes both = frame(requestBody(3, token + "a"));
            const Bytes second = frame(requestBody(8, token + "b"));
            both.insert(both.end(), second.begin(), second.end());
            if (!client.writeData(both)) {
                return;
            }
            const auto first = readAnswer(client);
            const auto next = readAnswer(client);
            if (first && next && first->token == token + "a" && next->token == token + "b") {
                ++served;
            }
        });
    }
    for (auto& client : clients) {
        client.join();
    }
    sockets.clear();  // the server sees every client leave
    EXPECT_EQ(served.load(), kClients);
    EXPECT_TRUE(testkit::waitUntil([&] {
        for (const auto& socket : delegate->sockets()) {
            if (socket->socketFileDescriptor() != -1) {
                return false;
            }
        }
        return true;
    }));
}

}  // namespace
}  // namespace pointlane
