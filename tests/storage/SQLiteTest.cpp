#include "storage/SQLite.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "StorageFixture.h"
#include "storage/Deal.h"
#include "storage/Election.h"
#include "storage/Game.h"
#include "support/Event.h"
#include "support/NotificationCenter.h"

namespace pointlane {
namespace {

using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

class SQLiteTest : public testing::StorageFixture {
  protected:
    // One deal to hang elections on; its id.
    static std::int64_t storedDeal() {
        auto game = Game::make("Gra", "Admin");
        auto deal = game && game->save() ? Deal::make(game->id, "Zadanie") : nullptr;
        return deal && deal->save() ? deal->id : 0;
    }
    // Stores an election from the queue; an announcement follows each stored row.
    static void storeLater(std::int64_t deal, const std::string& player, bool fail = false) {
        sqlm().async([deal, player, fail] {
            if (auto election = Election::make(deal, player, "5"); election && election->save()) {
                post(Event::electionTableDidChange);
            }
            if (fail) {
                throw std::runtime_error("after its insert");
            }
        });
    }
    // Holds the queue until the returned promise is set.
    // Holds the queue's worker inside a block of its own until the gate opens. It returns once
    // the worker is there, so the blocks submitted next all wait together for the gate.
    static std::promise<void> holdQueue() {
        std::promise<void> gate;
        auto running = std::make_shared<std::promise<void>>();
        auto started = running->get_future();
        sqlm().async([opened = gate.get_future().share(), running] {
            running->set_value();
            opened.wait();
        });
        started.wait();
        return gate;
    }
};

TEST_F(SQLiteTest, CreatedFromTheSchemaOpenedOnTheNextStartAndOnlyWithTheDatabaseHeader) {
    EXPECT_EQ(rawTexts(path(), "SELECT name FROM sqlite_master WHERE type='table' ORDER BY name"),
              (std::vector<std::string>{"Deal", "Election", "Estimate", "Game", "PlayerInfo"}));
    EXPECT_EQ(scalar("PRAGMA foreign_keys"), 1);
    CaptureStdout();
    EXPECT_FALSE(sqlm().create(path()));
    EXPECT_FALSE(sqlm().open(path()));
    sqlm().close();
    sqlm().close();  // harmless
    const auto size = std::filesystem::file_size(path());
    EXPECT_FALSE(sqlm().create(path()));
    const auto refused = linesOf(GetCapturedStdout());
    ASSERT_EQ(refused.size(), 3u);
    EXPECT_EQ(refused[0], "The database is already opened!");
    EXPECT_TRUE(matches(refused[1], R"(Error: the database is opened! open\(at:\):\d+)"));
    EXPECT_EQ(refused[2], "The database exists!");
    EXPECT_EQ(std::filesystem::file_size(path()), size);
    ASSERT_TRUE(sqlm().open(path()));
    EXPECT_EQ(scalar("PRAGMA foreign_keys"), 1);
    sqlm().close();

    // Opening never creates, and takes only a file that starts with the database header.
    const std::string header("SQLite format 3\0", 16);
    writeFile(dir_.file("exact"), header);
    writeFile(dir_.file("short"), header.substr(0, 15));
    writeFile(dir_.file("other"), "SQLite format 4" + std::string(1, '\0') + "more");
    CaptureStdout();
    EXPECT_FALSE(sqlm().open(dir_.file("missing")));
    EXPECT_FALSE(sqlm().open(dir_.path().string()));
    EXPECT_FALSE(sqlm().open(dir_.file("other")));
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_FALSE(std::filesystem::exists(dir_.file("missing")));
    EXPECT_TRUE(sqlm().isValidDatabase(dir_.file("exact")));
    for (const char* name : {"short", "other", "missing", ""}) {
        EXPECT_FALSE(sqlm().isValidDatabase(dir_.file(name))) << name;
    }
}

TEST_F(SQLiteTest, AFailingSchemaScriptOrInitializerClosesTheConnection) {
    sqlm().close();
    // The third statement fails: the first two stay, the connection closes.
    writeFile(dir_.file("broken.sql"),
              "-- two good tables, then a duplicate\nCREATE TABLE A (\n  x INTEGER\n);\n"
              "CREATE TABLE B (y TEXT); /* fine */\nCREATE TABLE A (z INTEGER);\n"
              "CREATE TABLE C (w INTEGER);\n");
    sqlm().setSchemaPath(dir_.file("broken.sql"));
    CaptureStdout();
    EXPECT_FALSE(sqlm().create(dir_.file("broken.sqlite")));
    auto lines = linesOf(GetCapturedStdout());
    EXPECT_FALSE(sqlm().isOpen());
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "CREATE TABLE A (z INTEGER)");
    EXPECT_TRUE(matches(lines[1], R"(SQLite: execQuery \(\d+\): table A already exists \(1\))"));
    EXPECT_TRUE(matches(lines[2], R"(SQLite: create\(at:_:\) \(\d+\): .* \(\d+\))")) << lines[2];
    EXPECT_EQ(rawTexts(dir_.file("broken.sqlite"),
                       "SELECT name FROM sqlite_master WHERE type='table' ORDER BY name"),
              (std::vector<std::string>{"A", "B"}));

    // No script: an empty database. An initializer runs before foreign keys are on; its
    // failure closes the connection.
    sqlm().setSchemaPath(dir_.file("no-such-script.sql"));
    bool ran = false;
    CaptureStdout();
    EXPECT_FALSE(sqlm().create(dir_.file("init.sqlite"), [&](SQLite& db) {
        ran =
            scalar("PRAGMA foreign_keys") == 0 && scalar("SELECT count(*) FROM sqlite_master") == 0;
        return db.execQuery("CREATE TABLE X (a)") && false;
    }));
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_TRUE(ran);
    EXPECT_FALSE(sqlm().isOpen());
}

TEST_F(SQLiteTest, FailuresAreReportedInTheirOwnWords) {
    // A select never runs a statement without columns.
    ASSERT_TRUE(sqlm().execQuery("INSERT INTO PlayerInfo (name, address) VALUES ('ann', 'b')"));
    auto result = sqlm().select("DELETE FROM PlayerInfo");
    ASSERT_TRUE(result && result->empty());
    EXPECT_TRUE(sqlm().execQuery(" \n\t"));
    EXPECT_EQ(scalar("SELECT count(*) FROM PlayerInfo"), 1);

    CaptureStdout();
    EXPECT_FALSE(sqlm().select("SELECT * FROM Nowhere"));
    EXPECT_FALSE(sqlm().execQuery("DELETE FROM Nowhere"));
    EXPECT_FALSE(sqlm().insert("Deal", {}));  // nothing to insert: silently refused
    EXPECT_FALSE(sqlm().update("Deal", {}));
    // No game 999: the reference is refused now that foreign keys are on.
    EXPECT_FALSE(sqlm().insert(
        "Deal", {{"gameId", DataValue::integer(999)}, {"name", DataValue::text("x")}}));
    // An update needs an id with a value, first.
    EXPECT_FALSE(sqlm().update("PlayerInfo",
                               {{"name", DataValue::text("x")}, {"id", DataValue::integer(1)}}));
    EXPECT_FALSE(sqlm().update(
        "PlayerInfo", {{"id", DataValue::integer(std::nullopt)}, {"name", DataValue::text("x")}}));
    const auto lines = linesOf(GetCapturedStdout());
    const std::vector<std::string> expected{
        R"(SQLite: select\(query:\) \(\d+\): no such table: Nowhere \(1\))",
        "DELETE FROM Nowhere",
        R"(SQLite: execQuery \(\d+\): .* \(1\))",
        R"(SQLite: insert\(table:fields:\) \(\d+\): FOREIGN KEY constraint failed \(19\))",
        R"(Error: a field id not found. update\(table:fields:\):\d+)",
        R"(Error: a field id not found. update\(table:fields:\):\d+)"};
    ASSERT_EQ(lines.size(), expected.size()) << ::testing::PrintToString(lines);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_TRUE(matches(lines[i], expected[i])) << lines[i];
    }
    // An id nobody has: nothing changes, and that is no failure.
    EXPECT_TRUE(sqlm().update("PlayerInfo",
                              {{"id", DataValue::integer(99)}, {"name", DataValue::text("x")}}));
    EXPECT_EQ(rawTexts(path(), "SELECT name, address FROM PlayerInfo"),
              std::vector<std::string>{"ann|b"});

    // Without a database statements are not ready, and a select says so.
    sqlm().close();
    EXPECT_EQ(sqlm().fetchStatement("SELECT 1").first, SQLiteStatusCode::notReadyToWork);
    EXPECT_FALSE(sqlm().execQuery("SELECT 1"));
    CaptureStdout();
    EXPECT_FALSE(sqlm().select("SELECT 1"));
    EXPECT_TRUE(matches(GetCapturedStdout(), R"(SQLite: select\(query:\) \(\d+\).*\n)"));
}

TEST_F(SQLiteTest, TextIsStoredTrimmedAndConvertedAndReadBackNatural) {
    ASSERT_TRUE(sqlm().execQuery("CREATE TABLE V (id INTEGER PRIMARY KEY, t, f, b, n)"));
    const Bytes blob{0, 1, 2, 255};
    const auto id = sqlm().insert("V", {{"t", DataValue::text("  Łukasz Żółć\r\n")},
                                        {"f", DataValue::floating(2.5)},
                                        {"b", DataValue::blob(blob)},
                                        {"n", DataValue::integer(std::nullopt)}});
    ASSERT_TRUE(id);
    // Empty and white-space-only texts: stored empty, read as text without a value; a pair
    // typed into the database comes back as the letter; invalid UTF-8 reads as no text.
    ASSERT_TRUE(
        sqlm().insert("V", {{"t", DataValue::text(" \t ")}, {"b", DataValue::blob(Bytes{})}}));
    ASSERT_TRUE(sqlm().execQuery("INSERT INTO V (t) VALUES ('za~'), (CAST(x'C328' AS TEXT))"));
    EXPECT_EQ(rawTexts(path(), "SELECT t, typeof(n) FROM V WHERE id = 1"),
              std::vector<std::string>{"L~ukasz Z~o~l~c~|null"});

    const auto rows = sqlm().select("SELECT * FROM V ORDER BY id");
    ASSERT_TRUE(rows && rows->size() == 4);
    const RowData& row = rows->array[0];
    EXPECT_EQ(row["t"]->data, DataValue::text("Łukasz Żółć"));
    EXPECT_EQ(row["f"]->data, DataValue::floating(2.5));
    EXPECT_EQ(row["b"]->data, DataValue::blob(blob));
    EXPECT_EQ(row["n"]->data, DataValue::null());
    EXPECT_EQ(row["id"]->data, DataValue::integer(*id));
    EXPECT_FALSE(row["missing"]);
    EXPECT_EQ(rows->array[1]["t"]->data, DataValue::text(std::nullopt));
    EXPECT_EQ(rows->array[1]["b"]->data, DataValue::null());
    EXPECT_EQ(rows->array[2]["t"]->data, DataValue::text("zą"));
    EXPECT_EQ(rows->array[3]["t"]->data, DataValue::text(std::nullopt));
}

// The blocks waiting together run in one transaction; each one's failure stays its own, and
// the change announcements go out after the commit, for committed rows only.
TEST_F(SQLiteTest, WaitingBlocksCommitTogetherAndOnlyCommittedRowsAreAnnounced) {
    const std::int64_t deal = storedDeal();
    ASSERT_GT(deal, 0);
    std::vector<std::string> seenAtPost;  // on the queue only
    auto token = NotificationCenter::defaultCenter().addObserver(
        toString(Event::electionTableDidChange), [&] {
            // Another connection sees only committed rows.
            seenAtPost.push_back(rawTexts(path(), "SELECT count(*) FROM Election").at(0));
        });
    auto gate = holdQueue();
    storeLater(deal, "A");
    storeLater(deal + 100, "B");  // no such deal: the insert fails, nothing is announced
    storeLater(deal, "C", true);  // stored, then the block fails: rolled back, not announced
    storeLater(deal, "D");
    CaptureStdout();
    gate.set_value();
    sqlm().drain();
    const std::string printed = GetCapturedStdout();
    NotificationCenter::defaultCenter().removeObserver(token);

    EXPECT_NE(printed.find("insert(table:fields:)"), std::string::npos) << printed;
    EXPECT_NE(printed.find("sqlite.manager: a block failed: after its insert"), std::string::npos)
        << printed;
    EXPECT_EQ(rawTexts(path(), "SELECT playerName FROM Election ORDER BY id"),
              (std::vector<std::string>{"A", "D"}));
    // Two announcements, both after the one commit that stored both rows.
    EXPECT_EQ(seenAtPost, (std::vector<std::string>{"2", "2"}));

    // Closing from the queue inside a batch commits (and announces) what the batch stored so
    // far; the blocks behind the close find no database.
    std::atomic<int> announced{0};
    token = NotificationCenter::defaultCenter().addObserver(toString(Event::electionTableDidChange),
                                                            [&] { ++announced; });
    gate = holdQueue();
    storeLater(deal, "E");
    storeLater(deal, "F");
    sqlm().async([] { sqlm().closeAfterPendingWork(); });
    storeLater(deal, "G");
    CaptureStdout();
    gate.set_value();
    sqlm().drain();
    GetCapturedStdout();
    NotificationCenter::defaultCenter().removeObserver(token);
    EXPECT_FALSE(sqlm().isOpen());
    EXPECT_EQ(announced.load(), 2);
    EXPECT_EQ(rawTexts(path(), "SELECT group_concat(playerName) FROM Election"),
              std::vector<std::string>{"A,D,E,F"});
}

// Another process reading the file, even inside a long read transaction, never makes a
// store fail; every commit is synced.
TEST_F(SQLiteTest, ALongReadElsewhereNeverFailsAStore) {
    const std::int64_t deal = storedDeal();
    ASSERT_GT(deal, 0);
    EXPECT_EQ(sqlm().select("PRAGMA journal_mode")->array.front()["journal_mode"]->data,
              DataValue::text("wal"));
    EXPECT_EQ(scalar("PRAGMA synchronous"), 2);  // FULL

    sqlite3* reader = nullptr;
    sqlite3_stmt* count = nullptr;
    ASSERT_EQ(sqlite3_open_v2(path().c_str(), &reader, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(reader, "BEGIN", nullptr, nullptr, nullptr), SQLITE_OK);
    ASSERT_EQ(sqlite3_prepare_v2(reader, "SELECT count(*) FROM Election", -1, &count, nullptr),
              SQLITE_OK);
    ASSERT_EQ(sqlite3_step(count), SQLITE_ROW);  // the read transaction holds its snapshot
    sqlite3_reset(count);

    CaptureStdout();
    for (int i = 0; i < 40; ++i) {
        storeLater(deal, "P" + std::to_string(i));
        if (i % 10 == 9) {
            sqlm().drain();  // several commits while the reader holds on
        }
    }
    sqlm().drain();
    EXPECT_EQ(GetCapturedStdout(), "");
    ASSERT_EQ(sqlite3_step(count), SQLITE_ROW);
    EXPECT_EQ(sqlite3_column_int64(count, 0), 0);  // still the reader's snapshot
    sqlite3_finalize(count);
    sqlite3_exec(reader, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(reader);
    EXPECT_EQ(rawTexts(path(), "SELECT count(*) FROM Election"), std::vector<std::string>{"40"});
}

}  // namespace
}  // namespace pointlane
