#include "storage/SchemaVersion.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <fstream>
#include <string>
#include <vector>

#include "ServerProcess.h"
#include "StorageFixture.h"
#include "storage/Estimate.h"
#include "storage/HistoryReader.h"
#include "storage/SQLite.h"

namespace pointlane {
namespace {

using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;

// The tables of the first release, as its schema script made them.
constexpr const char* kFirstRelease = R"(
CREATE TABLE Game (id INTEGER PRIMARY KEY, name TEXT NOT NULL, date TEXT NOT NULL,
                   admin TEXT NOT NULL);
CREATE TABLE Deal (id INTEGER PRIMARY KEY, gameId INTEGER NOT NULL REFERENCES Game (id),
                   name TEXT NOT NULL);
CREATE TABLE Election (id INTEGER PRIMARY KEY, dealId INTEGER NOT NULL REFERENCES Deal (id),
                       playerName TEXT NOT NULL, symbol TEXT NOT NULL);
CREATE TABLE PlayerInfo (id INTEGER PRIMARY KEY, name TEXT NOT NULL, address TEXT NOT NULL);
)";

bool run(const std::string& path, const std::string& sql) {
    sqlite3* db = nullptr;
    bool ok = sqlite3_open(path.c_str(), &db) == SQLITE_OK &&
              sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_close(db);
    return ok;
}

class SchemaVersionTest : public testing::StorageFixture {};

TEST_F(SchemaVersionTest, ADatabaseOfTheFirstReleaseIsUpgradedInPlaceWithEveryRowKept) {
    const std::string old = dir_.file("old.sqlite");
    ASSERT_TRUE(run(old, std::string("PRAGMA journal_mode=WAL;") + kFirstRelease + R"(
        INSERT INTO Game VALUES (3, 'Sprint 1', '2025-01-02 10:00:00', 'Ann');
        INSERT INTO Game VALUES (9, 'Sprint ''2''', '2025-02-03 11:30:00', 'Bob');
        INSERT INTO Deal VALUES (4, 3, 'Login');
        INSERT INTO Deal VALUES (7, 9, 'Logout, "fast"');
        INSERT INTO Election VALUES (1, 4, 'Ann', '5');
        INSERT INTO Election VALUES (5, 7, 'Bob', '?');
        INSERT INTO PlayerInfo VALUES (2, 'Ann', '10.0.0.1');)"));
    const std::string everyRow =
        "SELECT 'G', * FROM Game UNION ALL SELECT 'D', *, NULL FROM Deal UNION ALL "
        "SELECT 'E', * FROM Election UNION ALL SELECT 'P', *, NULL FROM PlayerInfo";
    const auto before = rawTexts(old, everyRow);
    ASSERT_EQ(before.size(), 7u);

    EXPECT_EQ(SchemaVersion::check(old), std::nullopt);
    // The export reads a file of the first layout as it is: no estimates yet.
    const HistoryResult read = HistoryReader::read(old, std::nullopt);
    ASSERT_TRUE(read.ok()) << read.error;
    ASSERT_EQ(read.history->games.size(), 2u);
    EXPECT_EQ(read.history->games[0].deals.at(0).estimate, std::nullopt);
    sqlm().close();
    ASSERT_TRUE(sqlm().open(old));
    EXPECT_EQ(SchemaVersion::version(sqlm()), std::optional<int>(0));
    EXPECT_EQ(SchemaVersion::upgrade(sqlm()), std::nullopt);
    EXPECT_EQ(SchemaVersion::version(sqlm()), std::optional<int>(SchemaVersion::kCurrent));
    EXPECT_EQ(rawTexts(old, everyRow), before);
    // The estimate is stored with its deal; recording again replaces it; a deal that isn't
    // there has none.
    for (const char* value : {"8", "13"}) {
        auto estimate = Estimate::make(7, value);
        ASSERT_TRUE(estimate && estimate->save());
    }
    ASSERT_TRUE(Estimate::estimateFor(7));
    EXPECT_EQ(Estimate::estimateFor(7)->value, "13");
    EXPECT_EQ(Estimate::estimateFor(4), nullptr);
    CaptureStdout();
    auto orphan = Estimate::make(999, "3");
    EXPECT_FALSE(orphan && orphan->save());
    EXPECT_NE(GetCapturedStdout().find("FOREIGN KEY constraint failed"), std::string::npos);
    // Upgrading again changes nothing.
    EXPECT_EQ(SchemaVersion::upgrade(sqlm()), std::nullopt);
    sqlm().close();

    const HistoryResult upgraded = HistoryReader::read(old, 9);
    ASSERT_TRUE(upgraded.ok()) << upgraded.error;
    EXPECT_EQ(upgraded.history->games.at(0).deals.at(0).estimate, std::optional<std::string>("13"));

    // An upgraded file and a new one have the same layout.
    const std::string layout =
        "SELECT m.name, c.cid, c.name, c.type, c.\"notnull\", c.pk, k.\"table\", k.\"to\" "
        "FROM sqlite_master m JOIN pragma_table_info(m.name) c "
        "LEFT JOIN pragma_foreign_key_list(m.name) k ON k.\"from\" = c.name "
        "WHERE m.type = 'table' ORDER BY m.name, c.cid";
    ASSERT_EQ(rawTexts(path(), layout).size(), 4u + 3 + 4 + 3 + 3);
    EXPECT_EQ(rawTexts(old, layout), rawTexts(path(), layout));
    EXPECT_EQ(rawTexts(old, "PRAGMA user_version"), rawTexts(path(), "PRAGMA user_version"));
}

TEST_F(SchemaVersionTest, NewerDamagedOrForeignDatabasesAreRefusedAndLeftAsTheyAre) {
    sqlm().close();
    struct Case {
        std::string name;
        std::string setup;
        bool corrupt;
        std::string reason;
    };
    const std::string rows =
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 400) "
        "INSERT INTO Deal SELECT i, 1, printf('%.200c', 'x') FROM n;";
    const std::vector<Case> cases{
        {"newer", std::string(kFirstRelease) + "PRAGMA user_version = 7;", false,
         "it was written by a newer Pointlane (layout 7, this one knows up to 1)."},
        {"damaged",
         std::string(kFirstRelease) + "INSERT INTO Game VALUES (1, 'g', 'd', 'a');" + rows, true,
         "it is damaged ("},
        {"foreign", "CREATE TABLE Game (id INTEGER PRIMARY KEY);", false,
         "it is not Pointlane's (it has no table Deal)."},
    };
    for (const Case& c : cases) {
        const std::string file = dir_.file(c.name + ".sqlite");
        ASSERT_TRUE(run(file, c.setup)) << c.name;
        if (c.corrupt) {
            // Page 3 onwards: the deals' table pages.
            std::string bytes = testkit::fileText(file);
            ASSERT_GT(bytes.size(), 4u * 4096) << c.name;
            for (std::size_t i = 2 * 4096; i < 2 * 4096 + 300; ++i) {
                bytes[i] = static_cast<char>(0xA5);
            }
            std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
        }
        const std::string original = testkit::fileText(file);
        const auto refusal = SchemaVersion::check(file);
        ASSERT_TRUE(refusal) << c.name;
        EXPECT_EQ(refusal->rfind("Pointlane can't use the database " + file + ": " + c.reason, 0),
                  0u)
            << *refusal;
        EXPECT_EQ(refusal->find('\n'), std::string::npos);
        EXPECT_EQ(testkit::fileText(file), original) << c.name;
    }
}

}  // namespace
}  // namespace pointlane
