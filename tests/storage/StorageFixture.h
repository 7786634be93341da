#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdint>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "TestKit.h"
#include "storage/SQLite.h"
#include "storage/SchemaVersion.h"

namespace pointlane::testing {

// Every test gets a fresh database file in its own folder: the shared connection is closed
// and re-created there from the project's schema script and the upgrade steps, as the server
// makes it.
class StorageFixture : public ::testing::Test {
  protected:
    void SetUp() override {
        sqlm().drain();
        sqlm().close();
        sqlm().setSchemaPath(POINTLANE_SOURCE_DIR "/resources/Schema.sql");
        path_ = dir_.file("Pointlane.sqlite");
        ASSERT_TRUE(sqlm().create(
            path_, [](SQLite& database) { return !SchemaVersion::upgrade(database); }));
    }
    void TearDown() override {
        sqlm().drain();
        sqlm().close();
        sqlm().resetSchemaPath();
    }
    const std::string& path() const { return path_; }

    // The first column of the first row as an integer (-1 when there is none).
    static std::int64_t scalar(const std::string& query) {
        auto rows = sqlm().select(query);
        if (!rows || rows->empty()) {
            return -1;
        }
        return rows->array.front().begin()->second.data.integerValue().value_or(-1);
    }

    // Every row as stored, its columns joined by "|", read over a second, raw connection: the
    // conversion layer would hide the stored form.
    static std::vector<std::string> rawTexts(const std::string& path, const std::string& query) {
        std::vector<std::string> rows;
        sqlite3* db = nullptr;
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, "unix") == SQLITE_OK &&
            sqlite3_prepare_v2(db, query.c_str(), -1, &stmt, nullptr) == SQLITE_OK) {
            while (sqlite3_step(stmt) == SQLITE_ROW) {
                std::string row;
                for (int c = 0; c < sqlite3_column_count(stmt); ++c) {
                    const auto* t = sqlite3_column_text(stmt, c);
                    row += (c == 0 ? "" : "|") +
                           std::string(t ? reinterpret_cast<const char*>(t) : "<null>");
                }
                rows.push_back(row);
            }
        }
        sqlite3_finalize(stmt);
        sqlite3_close(db);
        return rows;
    }

    static std::vector<std::string> linesOf(const std::string& text) {
        std::vector<std::string> lines;
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);) {
            lines.push_back(line);
        }
        return lines;
    }

    // True when the whole text matches the regular expression.
    static bool matches(const std::string& text, const std::string& pattern) {
        return std::regex_match(text, std::regex(pattern));
    }

    testkit::TempDir dir_;

  private:
    std::string path_;
};

}  // namespace pointlane::testing
