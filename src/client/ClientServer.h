#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "support/Bytes.h"
#include "transport/Request.h"
#include "transport/Socket.h"

namespace pointlane {

// A client's own server: listens on 127.0.0.1 on an ephemeral port, accepts the game
// server's push connection and collects the notifications that arrive on it, or hands each one
// to a callback as it arrives.
//
// Threading: thread safe. One thread accepts, one thread per accepted connection reads;
// notifications(), waitFor() and the counters may be called from any thread. stop() (also
// run by the destructor) ends and joins every thread.
class ClientServer final {
  public:
    struct Options {
        // False: accept connections but never read from them (a client that stalls).
        bool reads = true;
        // Above 0: the receive buffer size asked for on the accepted connections.
        int receiveBufferSize = 0;
        // When set, each notification is handed to this callback on the reading thread instead
        // of being collected (undecodable frames are still counted).
        std::function<void(Request)> onNotification;
        // When set, called on the reading thread when the server closes a push connection
        // (not when stop() ends it).
        std::function<void()> onClosed;
    };

    // nullptr when listening can't start.
    static std::unique_ptr<ClientServer> start(Options options);
    static std::unique_ptr<ClientServer> start() { return start(Options{}); }
    ~ClientServer();
    ClientServer(const ClientServer&) = delete;
    ClientServer& operator=(const ClientServer&) = delete;

    int port() const { return port_; }

    // Every notification received so far, in arrival order; bodies() holds their raw bodies.
    std::vector<Request> notifications() const;
    std::vector<Bytes> bodies() const;
    // Frames that did not decode as requests.
    int undecodable() const;
    // Connections accepted, and connections whose peer has closed them.
    int accepted() const;
    int closed() const;

    // Waits until predicate holds for the notifications received so far; true when it did.
    bool waitFor(const std::function<bool(const std::vector<Request>&)>& predicate,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    // Waits until at least n notifications have arrived.
    bool waitForCount(std::size_t n,
                      std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    // Waits until the push connection has been closed by the server.
    bool waitForClosed(std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

    // Forgets the notifications received so far.
    void clear();
    // Starts reading every connection accepted so far and every later one (for a server
    // started with reads false: a client that stalled and reads again).
    void resume();
    void stop();

  private:
    ClientServer(std::shared_ptr<Socket> listener, Options options);
    void acceptLoop();
    void readLoop(std::shared_ptr<Socket> connection);
    // Starts one reader for each connection that has none. Requires mutex_ held.
    void startReadersLocked();

    std::shared_ptr<Socket> listener_;
    Options options_;  // reads guarded by mutex_
    int port_ = 0;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Request> notifications_;                // guarded by mutex_
    std::vector<Bytes> bodies_;                         // guarded by mutex_
    int undecodable_ = 0;                               // guarded by mutex_
    int accepted_ = 0;                                  // guarded by mutex_
    int closed_ = 0;                                    // guarded by mutex_
    bool stopping_ = false;                             // guarded by mutex_
    std::vector<std::shared_ptr<Socket>> connections_;  // guarded by mutex_
    std::size_t readConnections_ = 0;                   // guarded by mutex_: how many have readers
    std::vector<std::thread> readers_;                  // guarded by mutex_
    std::thread acceptor_;
};

}  // namespace pointlane
