#pragma once

#include <atomic>
#include <memory>

#include "transport/Socket.h"

namespace pointlane {

class ServerThread;

// Supplies the connection object for each accepted socket. Called on the listener thread.
class ServerDelegate {
  public:
    virtual std::shared_ptr<ServerThread> serverThread(std::shared_ptr<Socket> socket) = 0;

  protected:
    ~ServerDelegate() = default;
};

// Owns the listening socket and accepts connections for ever on the thread that calls
// runOnPort(), starting one detached thread per connection.
class Server final : public std::enable_shared_from_this<Server> {
  public:
    // nullptr when the listening socket can't be created.
    static std::shared_ptr<Server> create(std::weak_ptr<ServerDelegate> delegate);

    // Blocks for as long as the server runs. Prints "Can't bind server socket to port" when the
    // port can't be bound, and "Server stopped" when the loop ends.
    void runOnPort(int port);

    // Shuts the listening socket down, which ends the accept loop (also a blocked accept).
    // Any thread.
    void stop();

    // The port being listened on once listening has started (useful with port 0), else 0.
    int listeningPort() const;

    std::shared_ptr<Socket> socket;
    std::weak_ptr<ServerDelegate> delegate;

  private:
    Server() = default;
    // Wraps one accepted descriptor and starts its connection thread, or drops it.
    void acceptConnection(int descriptor);
    // Re-listens before the next accept; false once stop() has shut the listening socket down.
    bool listenAgain();

    std::atomic<int> listeningPort_{0};
};

}  // namespace pointlane
