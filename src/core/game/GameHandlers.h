#pragma once

#include <memory>

#include "game/PokerThread.h"
#include "transport/Request.h"
#include "transport/Socket.h"

namespace pointlane {

// The game's seven request handlers: logins and logout, deals and cards. Each checks the
// token or the login data, changes the registry, submits record writes to the database queue,
// pushes notifications and writes exactly one answer on the request's connection.
//
// Threading: every handler runs on the thread of the connection that carried the request,
// many at once. Shared state is the registry (its own lock), the login count
// (PokerThread::counter, whose lock is never held together with the registry's) and GameState.
class GameHandlers final {
  public:
    GameHandlers() = delete;

    // The seven handlers, for PokerThread's dispatch table.
    static PokerThread::Handlers handlers();

    static void loginAdmin(const Request& request, const std::shared_ptr<Socket>& socket);
    static void loginPlayer(const Request& request, const std::shared_ptr<Socket>& socket);
    static void logout(const Request& request, const std::shared_ptr<Socket>& socket);
    static void initNewDeal(const Request& request, const std::shared_ptr<Socket>& socket);
    static void play(const Request& request, const std::shared_ptr<Socket>& socket);
    static void openCards(const Request& request, const std::shared_ptr<Socket>& socket);
    static void cardElected(const Request& request, const std::shared_ptr<Socket>& socket);

    // Seconds between the administrator's logout and the end of the process.
    static constexpr double kGameEndDelaySeconds = 1.0;
};

}  // namespace pointlane
