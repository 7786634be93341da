#include "StoredRows.h"

#include <sqlite3.h>

namespace pointlane::testkit {

std::optional<std::vector<Row>> storedRows(const std::string& databasePath,
                                           const std::string& query) {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(databasePath.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        return std::nullopt;
    }
    sqlite3_stmt* statement = nullptr;
    std::optional<std::vector<Row>> rows;
    if (sqlite3_prepare_v2(db, query.c_str(), -1, &statement, nullptr) == SQLITE_OK) {
        rows.emplace();
        while (sqlite3_step(statement) == SQLITE_ROW) {
            Row row;
            for (int i = 0; i < sqlite3_column_count(statement); ++i) {
                const auto* text = sqlite3_column_text(statement, i);
                row[sqlite3_column_name(statement, i)] =
                    text != nullptr ? reinterpret_cast<const char*>(text) : "";
            }
            rows->push_back(std::move(row));
        }
    }
    sqlite3_finalize(statement);
    sqlite3_close(db);
    return rows;
}

}  // namespace pointlane::testkit
