#include "storage/PlayerInfo.h"

#include "storage/RecordFields.h"
#include "storage/SQLite.h"
#include "support/Event.h"

namespace pointlane {

using namespace recordfields;

std::shared_ptr<PlayerInfo> PlayerInfo::make(const std::optional<std::string>& name,
                                             const std::optional<std::string>& address) {
    auto playerName = nonEmptyTrimmed(name);
    auto playerAddress = nonEmptyTrimmed(address);
    if (!playerName || !playerAddress) {
        return nullptr;
    }
    auto player = std::make_shared<PlayerInfo>();
    player->name = std::move(*playerName);
    player->address = std::move(*playerAddress);
    return player;
}

std::shared_ptr<PlayerInfo> PlayerInfo::fromRow(const std::optional<RowData>& row) {
    if (!row || row->empty()) {
        return nullptr;
    }
    const auto id = positiveInteger(*row, "id");
    if (!id) {
        return nullptr;
    }
    auto name = nonEmptyText(*row, "name");
    if (!name) {
        return nullptr;
    }
    auto address = nonEmptyText(*row, "address");
    if (!address) {
        return nullptr;
    }
    auto player = std::make_shared<PlayerInfo>();
    player->id = *id;
    player->name = std::move(*name);
    player->address = std::move(*address);
    return player;
}

std::vector<SQLField> PlayerInfo::fieldsArray() const {
    std::vector<SQLField> fields;
    fields.reserve(4);
    if (id > 0) {
        fields.push_back({"id", DataValue::integer(id)});
    }
    fields.push_back({"name", DataValue::text(trimmed(name))});
    fields.push_back({"address", DataValue::text(trimmed(address))});
    return fields;
}

bool PlayerInfo::save() {
    return saveRecord("PlayerInfo", fieldsArray(), id);
}

bool PlayerInfo::remove() {
    if (!sqlm().execQuery("DELETE FROM PlayerInfo WHERE id=" + std::to_string(id))) {
        return false;
    }
    post(Event::playerTableDidChange);
    return true;
}

std::string PlayerInfo::description() const {
    return "\n     id: " + std::to_string(id) + ",\n   name: " + name + ",\naddress: " + address +
           ",\n";
}

std::optional<std::vector<std::shared_ptr<PlayerInfo>>> PlayerInfo::all() {
    return recordsFrom<PlayerInfo>("SELECT * FROM PlayerInfo ORDER BY name");
}

std::shared_ptr<PlayerInfo> PlayerInfo::player(const std::string& named) {
    // The name is bound, never spliced into the text, so quotes in it can't end the literal.
    // Binding stores it the way save() does (trimmed, letters converted), so it compares with
    // the stored form.
    const auto rows = sqlm().select("SELECT * FROM PlayerInfo WHERE name=:name",
                                    {SQLField{"name", DataValue::text(named)}});
    if (!rows || rows->empty()) {
        return nullptr;
    }
    return fromRow(rows->array.front());
}

}  // namespace pointlane
