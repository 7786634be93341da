#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>

#include "transport/Socket.h"

namespace pointlane {

// Lets the requests of every connection into their handlers until the run ends. The quit
// paths close it before they store the pending records and close the database: a request
// read after that gets no handler and no answer (its connection ends), and close() waits for
// the requests already being handled, so that every answer a client was given has its record
// handed to the database queue before the queue is drained.
//
// A handler that is still running when the wait runs out (a client that stopped reading its
// answer, a connection back that hangs) has its connection shut down: its answer can't go out
// any more, so no client is told OK about a record that comes too late to be stored.
//
// Threading: thread safe. One process-wide gate, shared() (tests reopen it with reset()).
class RequestGate final {
  public:
    static RequestGate& shared();

    RequestGate() = default;
    RequestGate(const RequestGate&) = delete;
    RequestGate& operator=(const RequestGate&) = delete;

    // True when the request read on connection may be handled; leave() must follow once it
    // has been. False once the gate is closed: the request is dropped unanswered.
    bool enter(const std::shared_ptr<Socket>& connection);
    void leave(const std::shared_ptr<Socket>& connection);

    // Closes the gate and waits up to timeout for the requests being handled. True when none
    // is left; otherwise the connections of those left are shut down. Later calls close
    // nothing more and wait again.
    bool close(std::chrono::milliseconds timeout);
    bool isClosed() const;
    // Open again, with no request in flight (tests).
    void reset();

    // The time the quit paths give the requests in hand: longer than a notification's bounded
    // writes to stalled client servers.
    static constexpr std::chrono::milliseconds kQuitWait{5000};

  private:
    mutable std::mutex mutex_;
    std::condition_variable left_;
    bool closed_ = false;                         // guarded by mutex_
    std::set<std::shared_ptr<Socket>> inFlight_;  // guarded by mutex_
};

}  // namespace pointlane
