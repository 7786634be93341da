#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace pointlane {

struct RowData;
struct SQLField;

// One item to estimate within a game; table "Deal". id 0 = not stored yet.
class Deal final {
  public:
    // Game id present and above 0, trimmed title non-empty; nullptr otherwise.
    static std::shared_ptr<Deal> make(std::optional<std::int64_t> gameId, const std::string& title);
    static std::shared_ptr<Deal> fromRow(const RowData& row);

    bool save();
    std::string description() const;

    // The game's valid deals, newest first; nothing when none.
    static std::optional<std::vector<std::shared_ptr<Deal>>> dealsFor(std::int64_t game);

    std::int64_t id = 0;
    std::int64_t gameId = 0;
    std::string name;

  private:
    // The columns to write, in table order; "id" first only once stored.
    std::vector<SQLField> fieldsArray() const;
};

}  // namespace pointlane
