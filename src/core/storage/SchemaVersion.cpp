#include "storage/SchemaVersion.h"

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "storage/SQLite.h"
#include "storage/SQLiteHandle.h"
#include "storage/SQLiteStatement.h"

namespace pointlane {

namespace {

// Step n brings version n - 1 to version n.
constexpr std::array<std::string_view, SchemaVersion::kCurrent> kSteps{
    "CREATE TABLE Estimate ("
    " dealId INTEGER PRIMARY KEY REFERENCES Deal (id),"
    " value TEXT NOT NULL,"
    " date TEXT NOT NULL)",
};

constexpr std::array<const char*, 4> kFirstTables{"Game", "Deal", "Election", "PlayerInfo"};

std::string refusal(const std::string& path, const std::string& why) {
    return "Pointlane can't use the database " + path + ": " + why + ".";
}

// The first column of the first row as text, or the library's message.
bool firstText(sqlite3* db, const char* query, std::string& out) {
    int code = SQLITE_OK;
    SQLiteStatement statement = SQLiteStatement::prepare(nullptr, db, query, code);
    if (code != SQLITE_OK) {
        out = sqlite3_errmsg(db);
        return false;
    }
    out.clear();
    if (statement.step() == SQLITE_ROW) {
        out = statement.columnValue(0).textValue().value_or(
            std::to_string(statement.columnValue(0).integerValue().value_or(0)));
    }
    if (statement.finalize() != SQLITE_OK) {
        out = sqlite3_errmsg(db);
        return false;
    }
    return true;
}

}  // namespace

std::optional<std::string> SchemaVersion::check(const std::string& path) {
    sqlite3* handle = nullptr;
    const int opened = sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READONLY, nullptr);
    SQLiteHandle db(handle);
    if (opened != SQLITE_OK) {
        return refusal(path, handle != nullptr ? sqlite3_errmsg(handle) : "out of memory");
    }
    std::string text;
    if (!firstText(handle, "PRAGMA user_version", text)) {
        return refusal(path, "it is damaged (" + text + ")");
    }
    const int found = std::stoi(text.empty() ? "0" : text);
    if (found > kCurrent || found < 0) {
        return refusal(path, "it was written by a newer Pointlane (layout " + text +
                                 ", this one knows up to " + std::to_string(kCurrent) + ")");
    }
    if (!firstText(handle, "PRAGMA quick_check", text)) {
        return refusal(path, "it is damaged (" + text + ")");
    }
    if (text != "ok") {
        std::replace(text.begin(), text.end(), '\n', ' ');
        return refusal(path, "it is damaged (" + text + ")");
    }
    for (const char* table : kFirstTables) {
        const std::string query =
            std::string("SELECT count(*) FROM sqlite_master WHERE type='table' AND name='") +
            table + "'";
        if (!firstText(handle, query.c_str(), text)) {
            return refusal(path, "it is damaged (" + text + ")");
        }
        if (text != "1") {
            return refusal(path,
                           std::string("it is not Pointlane's (it has no table ") + table + ")");
        }
    }
    return std::nullopt;
}

std::optional<int> SchemaVersion::version(SQLite& database) {
    const auto rows = database.select("PRAGMA user_version");
    if (!rows || rows->empty()) {
        return std::nullopt;
    }
    const auto value = rows->array.front().begin()->second.data.integerValue();
    if (!value) {
        return std::nullopt;
    }
    return static_cast<int>(*value);
}

std::optional<std::string> SchemaVersion::upgrade(SQLite& database) {
    const auto found = version(database);
    if (!found) {
        return "its layout version can't be read";
    }
    for (int next = *found + 1; next <= kCurrent; ++next) {
        const bool done =
            database.execQuery("BEGIN IMMEDIATE") &&
            database.execQuery(std::string(kSteps[static_cast<std::size_t>(next - 1)])) &&
            database.execQuery("PRAGMA user_version = " + std::to_string(next)) &&
            database.execQuery("COMMIT");
        if (!done) {
            database.execQuery("ROLLBACK");
            return "the step to layout " + std::to_string(next) + " failed; it is left as it was";
        }
    }
    return std::nullopt;
}

}  // namespace pointlane
