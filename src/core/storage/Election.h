#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace pointlane {

struct RowData;
struct SQLField;

// One card chosen for a deal; table "Election". id 0 = not stored yet.
class Election final {
  public:
    // init(deal:player:symbol:): deal id above 0, both texts non-empty after trimming.
    static std::shared_ptr<Election> make(std::optional<std::int64_t> deal,
                                          const std::optional<std::string>& player,
                                          const std::optional<std::string>& symbol);
    static std::shared_ptr<Election> fromRow(const RowData& row);

    bool save();

    // The deal's valid elections, newest first; nothing when none.
    static std::optional<std::vector<std::shared_ptr<Election>>> electionsFor(std::int64_t deal);

    std::int64_t id = 0;
    std::int64_t dealId = 0;
    std::string playerName;
    std::string symbol;

  private:
    // The columns to write, in table order; "id" first only once stored.
    std::vector<SQLField> fieldsArray() const;
};

}  // namespace pointlane
