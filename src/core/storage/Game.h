#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace pointlane {

struct RowData;
struct SQLField;

// One estimation game opened by an administrator; table "Game". id 0 = not stored yet.
// Threading: a record is used by one thread at a time; the queries run on the caller's thread.
class Game final {
  public:
    using Clock = std::chrono::system_clock;

    // init(gameName:adminName:): both trimmed texts non-empty; date = now. nullptr otherwise.
    static std::shared_ptr<Game> make(const std::string& gameName, const std::string& adminName);
    // init(rowData:): nullptr when the row is not a valid game.
    static std::shared_ptr<Game> fromRow(const RowData& row);

    // Inserts (id 0, then id = the row id) or updates; true on success.
    bool save();
    std::string description() const;

    // "SELECT * FROM Game ORDER BY id DESC": valid games, newest first; nothing when none.
    static std::optional<std::vector<std::shared_ptr<Game>>> games();

    std::int64_t id = 0;
    std::string name;
    Clock::time_point date;
    std::string admin;

  private:
    // The columns to write, in table order; "id" first only once stored.
    std::vector<SQLField> fieldsArray() const;
};

}  // namespace pointlane
