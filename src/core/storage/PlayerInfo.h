#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace pointlane {

struct RowData;
struct SQLField;

// A known player and the address it logged in from; table "PlayerInfo". id 0 = not stored yet.
class PlayerInfo final {
  public:
    // init(name:address:): both present and non-empty after trimming; nullptr otherwise.
    static std::shared_ptr<PlayerInfo> make(const std::optional<std::string>& name,
                                            const std::optional<std::string>& address);
    static std::shared_ptr<PlayerInfo> fromRow(const std::optional<RowData>& row);

    bool save();
    // Deletes this player's row; on success posts playerTableDidChange. A missing row succeeds.
    bool remove();
    std::string description() const;

    // All valid known players ordered by the stored name; nothing when none.
    static std::optional<std::vector<std::shared_ptr<PlayerInfo>>> all();
    // The player stored under name (compared with the stored form, the name bound, never
    // spliced into the statement); built from the first row; nothing when none.
    static std::shared_ptr<PlayerInfo> player(const std::string& named);

    std::int64_t id = 0;
    std::string name;
    std::string address;

  private:
    // The columns to write, in table order; "id" first only once stored.
    std::vector<SQLField> fieldsArray() const;
};

}  // namespace pointlane
