#pragma once

#include <functional>
#include <map>
#include <memory>

#include "support/Mutex.h"
#include "transport/Request.h"
#include "transport/ServerThread.h"
#include "transport/Socket.h"

namespace pointlane {

// The connection object of every client connection: run() reads request frames one after
// another, decodes them and calls the handler registered for the request's code. Requests on
// one connection are handled strictly in order, each on this connection's thread.
//
// Threading: owned by its connection thread. The class-wide login count is guarded by
// counterMutex.
class PokerThread final : public ServerThread {
  public:
    // Called with the request and the connection's own socket; writes its own answer.
    using Handler = std::function<void(const Request&, const std::shared_ptr<Socket>&)>;

    struct Handlers {
        Handler loginAdmin;
        Handler loginPlayer;
        Handler logout;
        Handler initNewDeal;
        Handler play;
        Handler openCards;
        Handler cardElected;
    };

    // A connection served by the game's own handlers.
    explicit PokerThread(std::shared_ptr<Socket> socket);
    // A connection served by the given handlers (tests, tools).
    PokerThread(std::shared_ptr<Socket> socket, Handlers handlers);

    void run() override;

    Handler loginAdmin;
    Handler loginPlayer;
    Handler logout;
    Handler initNewDeal;
    Handler play;
    Handler openCards;
    Handler cardElected;
    // The dispatch table: seven entries; playerAdded and playerRemoved have none.
    std::map<RequestCode, Handler> call;

  private:
    // Decodes one request body and calls its handler (or answers "unknownRequest").
    void dispatch(const Bytes& body);

  public:
    // Logins currently admitted by the login limit; guarded by counterMutex.
    static int counter;
    static constexpr int counterLimit = 5;
    static Mutex counterMutex;
};

}  // namespace pointlane
