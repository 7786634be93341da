#include "storage/Deal.h"

#include "storage/RecordFields.h"
#include "storage/SQLite.h"

namespace pointlane {

using namespace recordfields;

std::shared_ptr<Deal> Deal::make(std::optional<std::int64_t> gameId, const std::string& title) {
    auto name = nonEmptyTrimmed(title);
    if (!gameId || *gameId <= 0 || !name) {
        return nullptr;
    }
    auto deal = std::make_shared<Deal>();
    deal->gameId = *gameId;
    deal->name = std::move(*name);
    return deal;
}

std::shared_ptr<Deal> Deal::fromRow(const RowData& row) {
    if (row.empty()) {
        return nullptr;
    }
    const auto id = positiveInteger(row, "id");
    if (!id) {
        return nullptr;
    }
    const auto gameId = positiveInteger(row, "gameId");
    if (!gameId) {
        return nullptr;
    }
    auto name = nonEmptyText(row, "name");
    if (!name) {
        return nullptr;
    }
    auto deal = std::make_shared<Deal>();
    deal->id = *id;
    deal->gameId = *gameId;
    deal->name = std::move(*name);
    return deal;
}

std::vector<SQLField> Deal::fieldsArray() const {
    std::vector<SQLField> fields;
    fields.reserve(4);
    if (id > 0) {
        fields.push_back({"id", DataValue::integer(id)});
    }
    fields.push_back({"gameId", DataValue::integer(gameId)});
    fields.push_back({"name", DataValue::text(trimmed(name))});
    return fields;
}

bool Deal::save() {
    return saveRecord("Deal", fieldsArray(), id);
}

std::string Deal::description() const {
    return "\n     id: " + std::to_string(id) + ",\ngame id: " + std::to_string(gameId) +
           ",\n   name: " + name + ",\n";
}

std::optional<std::vector<std::shared_ptr<Deal>>> Deal::dealsFor(std::int64_t game) {
    return recordsFrom<Deal>("SELECT * FROM Deal WHERE gameId=" + std::to_string(game) +
                             " ORDER BY id DESC");
}

}  // namespace pointlane
