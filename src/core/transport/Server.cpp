#include "transport/Server.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <exception>
#include <thread>

#include "transport/ServerThread.h"
#include "transport/SocketFunctions.h"

namespace pointlane {

namespace {

void printLine(const char* line) {
    std::puts(line);
    std::fflush(stdout);
}

// The whole life of one connection thread: nothing may escape it, since an exception leaving a
// detached thread ends the process.
void runConnection(std::shared_ptr<ServerThread> connection) {
    try {
        connection->run();
    } catch (...) {
    }
    connection.reset();  // the last reference: shuts the connection's socket down
}

}  // namespace

std::shared_ptr<Server> Server::create(std::weak_ptr<ServerDelegate> delegate) {
    std::shared_ptr<Socket> socket = Socket::create(-1);
    if (!socket) {
        return nullptr;
    }
    std::shared_ptr<Server> server(new Server());
    server->socket = std::move(socket);
    server->delegate = std::move(delegate);
    return server;
}

void Server::runOnPort(int port) {
    const int listening = socket->socketFileDescriptor();
    if (listening == -1) {
        printLine("Server stopped");  // stopped before it started
        return;
    }
    if (bind_socket(listening, port) == -1) {
        printLine("Can't bind server socket to port");
        return;
    }
    if (listenAgain()) {
        listeningPort_ = socket->localPort();
        do {
            const int accepted = accept_socket(socket->socketFileDescriptor());
            if (accepted == -1) {
                // Out of descriptors or memory: give running connections a moment to finish
                // instead of spinning on a failing accept.
                if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(10));
                }
                continue;
            }
            try {
                acceptConnection(accepted);
            } catch (...) {
                // A connection that can't be set up (no thread, no memory) is dropped alone.
            }
        } while (listenAgain());
        listeningPort_ = 0;
    }
    printLine("Server stopped");
}

void Server::acceptConnection(int descriptor) {
    std::shared_ptr<Socket> client = Socket::create(descriptor);
    if (!client) {
        return;
    }
    const std::shared_ptr<ServerDelegate> owner = delegate.lock();
    if (!owner) {
        client->shutdown();
        return;
    }
    std::shared_ptr<ServerThread> connection = owner->serverThread(client);
    if (!connection) {
        client->shutdown();
        return;
    }
    connection->server = weak_from_this();
    if (socket->socketFileDescriptor() == -1) {
        return;  // stopped meanwhile: releasing the connection closes it
    }
    std::thread(runConnection, std::move(connection)).detach();
}

bool Server::listenAgain() {
    // A socket shut down by stop() has descriptor -1, so this fails and the loop ends.
    return socket_listen(socket->socketFileDescriptor()) != -1;
}

void Server::stop() {
    // Wakes a thread blocked in accept; the descriptor stays open until the socket is
    // destroyed, so the listener never works on a number another socket may have taken.
    socket->shutdown();
}

int Server::listeningPort() const {
    return listeningPort_.load();
}

}  // namespace pointlane
