#pragma once

#include <memory>

#include "transport/Socket.h"

namespace pointlane {

// Keeps the server from talking to itself. A login whose client server port is the server's
// own game port would have the server connect back to its own listener; its push connection
// would then be a request connection carrying a valid token, and every notification would come
// back as a request to be relayed again, for ever. So a connection back that reaches our own
// listener is refused at login, and, whatever the route, a connection that our listener
// accepts from one of our own push connections is closed before any of its frames is handled.
//
// Threading: thread safe; the push connections filed are guarded by a mutex of their own.
class SelfConnectionGuard final {
  public:
    SelfConnectionGuard() = delete;

    // True when push, connected back for a login that came in on request, reaches this server's
    // own listener: its peer port is the port the request came in on, and its peer address is
    // this machine's (loopback, the push connection's own address, or any interface's).
    static bool reachesOwnListener(const Socket& push, const Socket& request);

    // Files push as one of our outgoing push connections for as long as it is open. Called as
    // soon as it is connected, before the player is filed, so before any notification can
    // travel on it.
    static void filePush(const std::shared_ptr<Socket>& push);

    // True when the accepted connection comes from one of our own open push connections.
    static bool isOwnPush(const Socket& accepted);
};

}  // namespace pointlane
