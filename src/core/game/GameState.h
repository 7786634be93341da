#pragma once

#include <cstdint>
#include <functional>
#include <optional>

namespace pointlane {

// The module-wide state of the one game a server run serves: the row ids of the open game
// and of the deal stored last, and what ends the process after the administrator's logout.
//
// Threading: thread safe. The ids are written by database work on the database queue (and
// the game's id cleared at the administrator's logout); any thread may read them.
class GameState final {
  public:
    GameState() = delete;

    static std::optional<std::int64_t> currentGameID();
    static void setCurrentGameID(std::optional<std::int64_t> id);
    static std::optional<std::int64_t> currentDealID();
    static void setCurrentDealID(std::optional<std::int64_t> id);

    // Runs on the main queue once the database is closed after the administrator's logout and
    // ends the process with the given status. The default flushes the standard streams and
    // exits at once; the application replaces it to leave its event loop.
    static void setProcessEnd(std::function<void(int status)> end);
    static void endProcess(int status);

    // Tests only: both ids absent, the default process end.
    static void reset();
};

}  // namespace pointlane
