#pragma once

// Loopback plumbing shared by the transport tests: connected socket pairs, a server running on
// an ephemeral port, and a client that reads answers with a time-out so no test can hang.

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "JsonText.h"
#include "TestKit.h"
#include "support/Bytes.h"
#include "transport/Answer.h"
#include "transport/Frame.h"
#include "transport/Request.h"
#include "transport/Server.h"
#include "transport/ServerThread.h"
#include "transport/Socket.h"
#include "transport/SocketFunctions.h"

namespace pointlane::loopback {

using jsontext::bytesOf;

// A client socket connected to 127.0.0.1:port whose reads give up after a few seconds.
inline std::shared_ptr<Socket> connectTo(int port, int timeoutSeconds = 10) {
    std::shared_ptr<Socket> socket = Socket::create(-1);
    if (!socket || connect_socket(socket->socketFileDescriptor(), "127.0.0.1", port) != 0) {
        return nullptr;
    }
    socket->setReceiveTimeout(timeoutSeconds);
    return socket;
}

// Two ends of one loopback TCP connection.
struct SocketPair {
    std::shared_ptr<Socket> client;
    std::shared_ptr<Socket> server;
};

inline SocketPair makePair() {
    SocketPair pair;
    std::shared_ptr<Socket> listener = Socket::create(-1);
    if (!listener || bind_socket(listener->socketFileDescriptor(), 0) != 0 ||
        socket_listen(listener->socketFileDescriptor()) != 0) {
        return pair;
    }
    pair.client = connectTo(listener->localPort());
    const int accepted = accept_socket(listener->socketFileDescriptor());
    pair.server = Socket::create(accepted);
    if (pair.server) {
        pair.server->setReceiveTimeout(10);
    }
    return pair;
}

inline Bytes frame(const std::string& body) {
    return encodeFrame(bytesOf(body)).value_or(Bytes{});
}

// Reads one answer frame; nothing on end of stream or time-out.
inline std::optional<Answer> readAnswer(Socket& socket) {
    const std::optional<Bytes> body = receiveFrame(socket);
    if (!body) {
        return std::nullopt;
    }
    return Answer::fromJson(*body);
}

// Hands each accepted socket to a factory and remembers every socket it saw.
class RecordingDelegate final : public ServerDelegate {
  public:
    using Factory = std::function<std::shared_ptr<ServerThread>(std::shared_ptr<Socket>)>;
    explicit RecordingDelegate(Factory factory) : factory_(std::move(factory)) {}

    std::shared_ptr<ServerThread> serverThread(std::shared_ptr<Socket> socket) override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            sockets_.push_back(socket);
        }
        return factory_(std::move(socket));
    }

    std::vector<std::shared_ptr<Socket>> sockets() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return sockets_;
    }

  private:
    Factory factory_;
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<Socket>> sockets_;
};

// A Server on an ephemeral loopback port, run on its own thread and stopped on destruction.
class RunningServer {
  public:
    explicit RunningServer(std::shared_ptr<ServerDelegate> delegate)
        : delegate_(std::move(delegate)), server_(Server::create(delegate_)) {
        if (!server_) {
            return;
        }
        thread_ = std::thread([server = server_] { server->runOnPort(0); });
        testkit::waitUntil([this] { return server_->listeningPort() != 0; });
    }
    ~RunningServer() {
        if (server_) {
            server_->stop();
        }
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    RunningServer(const RunningServer&) = delete;
    RunningServer& operator=(const RunningServer&) = delete;

    int port() const { return server_ ? server_->listeningPort() : 0; }
    Server& server() { return *server_; }

  private:
    std::shared_ptr<ServerDelegate> delegate_;
    std::shared_ptr<Server> server_;
    std::thread thread_;
};

}  // namespace pointlane::loopback
