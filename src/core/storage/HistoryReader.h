#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "rules/RoundStatistics.h"
#include "storage/Deal.h"
#include "storage/Election.h"
#include "storage/Game.h"
#include "storage/SQLiteHandle.h"

struct sqlite3;

namespace pointlane {

// One deal as stored, with its elections in the order they were made, their statistics and
// the final estimate recorded for it (nothing when none, or in a file of the first layout).
struct DealHistory {
    Deal deal;
    std::vector<Election> elections;
    RoundStatistics statistics;
    std::optional<std::string> estimate;
};

// One game as stored, with its deals newest first.
struct GameHistory {
    Game game;
    std::vector<DealHistory> deals;
    GameStatistics statistics;
};

// The stored games, newest first; or the one line that says why they couldn't be read.
struct History {
    std::vector<GameHistory> games;
};
struct HistoryResult {
    std::optional<History> history;
    std::string error;  // empty when history is set

    bool ok() const { return history.has_value(); }
};

// A read-only connection to a database file for taking the history away: it never writes and
// never creates the file, and it reads while a server writes to the same file. Rows are built
// and checked by the records, so the history holds exactly what the monitor's lists show, in
// natural text.
// Owns its connection and closes it when destroyed. Threading: one thread at a time; open one
// reader per thread.
class HistoryReader final {
  public:
    // Opens the file at path read-only; nullptr with the reason in *error when there is no
    // database there.
    static std::unique_ptr<HistoryReader> open(const std::string& path, std::string* error);
    // Opens, reads every game (no id) or the one game, and closes.
    static HistoryResult read(const std::string& path, std::optional<std::int64_t> gameId);

    ~HistoryReader();
    HistoryReader(const HistoryReader&) = delete;
    HistoryReader& operator=(const HistoryReader&) = delete;

    // Every game, or the game with that id (no game when there is none), in one consistent
    // snapshot of the file.
    HistoryResult read(std::optional<std::int64_t> gameId);

  private:
    HistoryReader(SQLiteHandle db, std::string path) : db_(std::move(db)), path_(std::move(path)) {}

    SQLiteHandle db_;
    std::string path_;
};

}  // namespace pointlane
