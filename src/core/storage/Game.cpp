#include "storage/Game.h"

#include "storage/RecordFields.h"
#include "storage/SQLite.h"
#include "support/DateHelpers.h"

namespace pointlane {

using namespace recordfields;

std::shared_ptr<Game> Game::make(const std::string& gameName, const std::string& adminName) {
    auto name = nonEmptyTrimmed(gameName);
    auto admin = nonEmptyTrimmed(adminName);
    if (!name || !admin) {
        return nullptr;
    }
    auto game = std::make_shared<Game>();
    game->name = std::move(*name);
    game->admin = std::move(*admin);
    game->date = Clock::now();
    return game;
}

std::shared_ptr<Game> Game::fromRow(const RowData& row) {
    if (row.empty()) {
        return nullptr;
    }
    const auto id = positiveInteger(row, "id");
    if (!id) {
        return nullptr;
    }
    auto name = nonEmptyText(row, "name");
    if (!name) {
        return nullptr;
    }
    const SQLField* dateField = row.find("date");
    const auto dateText = dateField ? dateField->data.textValue() : std::nullopt;
    const auto date = dateText ? parseLocalDateTime(*dateText) : std::nullopt;
    if (!date) {
        return nullptr;
    }
    auto admin = nonEmptyText(row, "admin");
    if (!admin) {
        return nullptr;
    }
    auto game = std::make_shared<Game>();
    game->id = *id;
    game->name = std::move(*name);
    game->date = *date;
    game->admin = std::move(*admin);
    return game;
}

std::vector<SQLField> Game::fieldsArray() const {
    std::vector<SQLField> fields;
    fields.reserve(4);
    if (id > 0) {
        fields.push_back({"id", DataValue::integer(id)});
    }
    fields.push_back({"name", DataValue::text(trimmed(name))});
    fields.push_back({"date", DataValue::text(formatLocalDateTime(date))});
    fields.push_back({"admin", DataValue::text(trimmed(admin))});
    return fields;
}

bool Game::save() {
    return saveRecord("Game", fieldsArray(), id);
}

std::string Game::description() const {
    return "\n   id: " + std::to_string(id) + ",\n name: " + name +
           ",\n date: " + formatUtcDescription(date) + ",\nadmin: " + admin + ",\n";
}

std::optional<std::vector<std::shared_ptr<Game>>> Game::games() {
    return recordsFrom<Game>("SELECT * FROM Game ORDER BY id DESC");
}

}  // namespace pointlane
