#pragma once

#include <functional>
#include <map>
#include <memory>

#include "game/LoginCounter.h"
#include "transport/Request.h"
#include "transport/ServerThread.h"
#include "transport/Socket.h"

namespace pointlane {

// Called with the request and the connection's own socket; writes its own answer.
using RequestHandler = std::function<void(const Request&, const std::shared_ptr<Socket>&)>;

// The seven request handlers a connection dispatches to; the application hands in the game's
// own (GameHandlers::handlers()), tests and tools their own.
struct RequestHandlers {
    RequestHandler loginAdmin;
    RequestHandler loginPlayer;
    RequestHandler logout;
    RequestHandler initNewDeal;
    RequestHandler play;
    RequestHandler openCards;
    RequestHandler cardElected;
};

// The connection object of every client connection: run() reads request frames one after
// another, decodes them and calls the handler registered for the request's code. Requests on
// one connection are handled strictly in order, each on this connection's thread.
//
// Threading: owned by its connection thread. The class-wide login count is thread safe.
class PokerThread final : public ServerThread, public RequestHandlers {
  public:
    using Handler = RequestHandler;
    using Handlers = RequestHandlers;

    // A connection served by the given handlers.
    PokerThread(std::shared_ptr<Socket> connection, Handlers handlers);

    void run() override;

    // The dispatch table: seven entries; playerAdded and playerRemoved have none.
    std::map<RequestCode, Handler> call;

  private:
    // Decodes one request body and calls its handler (or answers "unknownRequest").
    void dispatch(const Bytes& body);

  public:
    // Logins currently admitted by the login limit, shared by every connection.
    static LoginCounter counter;
    static constexpr int counterLimit = LoginCounter::counterLimit;
};

}  // namespace pointlane
