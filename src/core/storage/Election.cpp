#include "storage/Election.h"

#include "storage/RecordFields.h"
#include "storage/SQLite.h"

namespace pointlane {

using namespace recordfields;

std::shared_ptr<Election> Election::make(std::optional<std::int64_t> deal,
                                         const std::optional<std::string>& player,
                                         const std::optional<std::string>& symbol) {
    auto playerName = nonEmptyTrimmed(player);
    auto card = nonEmptyTrimmed(symbol);
    if (!deal || *deal <= 0 || !playerName || !card) {
        return nullptr;
    }
    auto election = std::make_shared<Election>();
    election->dealId = *deal;
    election->playerName = std::move(*playerName);
    election->symbol = std::move(*card);
    return election;
}

std::shared_ptr<Election> Election::fromRow(const RowData& row) {
    if (row.empty()) {
        return nullptr;
    }
    const auto id = positiveInteger(row, "id");
    if (!id) {
        return nullptr;
    }
    const auto dealId = positiveInteger(row, "dealId");
    if (!dealId) {
        return nullptr;
    }
    auto playerName = nonEmptyText(row, "playerName");
    if (!playerName) {
        return nullptr;
    }
    auto symbol = nonEmptyText(row, "symbol");
    if (!symbol) {
        return nullptr;
    }
    auto election = std::make_shared<Election>();
    election->id = *id;
    election->dealId = *dealId;
    election->playerName = std::move(*playerName);
    election->symbol = std::move(*symbol);
    return election;
}

std::vector<SQLField> Election::fieldsArray() const {
    std::vector<SQLField> fields;
    fields.reserve(4);
    if (id > 0) {
        fields.push_back({"id", DataValue::integer(id)});
    }
    fields.push_back({"dealId", DataValue::integer(dealId)});
    fields.push_back({"playerName", DataValue::text(trimmed(playerName))});
    fields.push_back({"symbol", DataValue::text(trimmed(symbol))});
    return fields;
}

bool Election::save() {
    return saveRecord("Election", fieldsArray(), id);
}

std::optional<std::vector<std::shared_ptr<Election>>> Election::electionsFor(std::int64_t deal) {
    return recordsFrom<Election>("SELECT * FROM Election WHERE dealId=" + std::to_string(deal) +
                                 " ORDER BY id DESC");
}

}  // namespace pointlane
