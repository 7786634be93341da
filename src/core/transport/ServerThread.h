#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "transport/Socket.h"

namespace pointlane {

class Server;

// One accepted connection, run on a thread of its own by the Server. Destruction shuts its
// socket down. Owned by its connection thread once that thread has started.
class ServerThread {
  public:
    explicit ServerThread(std::shared_ptr<Socket> connection);
    virtual ~ServerThread();
    ServerThread(const ServerThread&) = delete;
    ServerThread& operator=(const ServerThread&) = delete;

    // The connection's work; called once, on the connection's own thread. Does nothing here.
    virtual void run();

    // Equal when the descriptors of their sockets are equal; the hash is that descriptor.
    bool operator==(const ServerThread& other) const;
    std::size_t hash() const;

    std::shared_ptr<Socket> socket;
    std::optional<std::string> clientAddress;  // taken once at construction
    std::atomic<bool> shouldClose{false};
    std::weak_ptr<Server> server;  // set by the accept loop; not owned
};

}  // namespace pointlane
