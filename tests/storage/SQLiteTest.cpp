#include "storage/SQLite.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Shape.h"
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

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary);
    out << content;
}

class SQLiteTest : public testing::StorageFixture {};

TEST_F(SQLiteTest, CreatedFromTheSchemaThenOpenedOnTheNextStartAndRefusedWhileOpen) {
    EXPECT_TRUE(sqlm().isOpen());
    EXPECT_EQ(scalar("SELECT count(*) FROM sqlite_master WHERE type='table' AND name IN "
                     "('Game','Deal','Election','PlayerInfo')"),
              4);
    EXPECT_EQ(scalar("PRAGMA foreign_keys"), 1);

    CaptureStdout();
    EXPECT_FALSE(sqlm().create(path()));
    EXPECT_FALSE(sqlm().open(path()));
    const auto refused = linesOf(GetCapturedStdout());
    ASSERT_EQ(refused.size(), 2u);
    EXPECT_EQ(refused[0], "The database is already opened!");
    EXPECT_TRUE(testing::hasShape(refused[1], "Error: the database is opened! open(at:):#"))
        << refused[1];

    sqlm().close();
    sqlm().close();  // harmless
    EXPECT_FALSE(sqlm().isOpen());

    CaptureStdout();
    const auto sizeBefore = std::filesystem::file_size(path());
    EXPECT_FALSE(sqlm().create(path()));
    EXPECT_EQ(GetCapturedStdout(), "The database exists!\n");
    EXPECT_EQ(std::filesystem::file_size(path()), sizeBefore);

    ASSERT_TRUE(sqlm().open(path()));
    EXPECT_EQ(scalar("PRAGMA foreign_keys"), 1);
    EXPECT_EQ(scalar("SELECT count(*) FROM Game"), 0);
}

TEST_F(SQLiteTest, OpenNeverCreatesAndOnlyAcceptsTheDatabaseHeader) {
    sqlm().close();
    const std::string missing = dir_.file("missing.sqlite");
    CaptureStdout();
    EXPECT_FALSE(sqlm().open(missing));
    EXPECT_FALSE(sqlm().open(dir_.path().string()));
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_FALSE(std::filesystem::exists(missing));
    EXPECT_FALSE(sqlm().isOpen());

    const std::string header("SQLite format 3\0", 16);
    writeFile(dir_.file("exact"), header);
    writeFile(dir_.file("short"), header.substr(0, 15));
    writeFile(dir_.file("empty"), "");
    writeFile(dir_.file("other"), "SQLite format 4" + std::string(1, '\0') + "more");
    EXPECT_TRUE(sqlm().isValidDatabase(dir_.file("exact")));
    EXPECT_TRUE(sqlm().isValidDatabase(path()));
    EXPECT_FALSE(sqlm().isValidDatabase(dir_.file("short")));
    EXPECT_FALSE(sqlm().isValidDatabase(dir_.file("empty")));
    EXPECT_FALSE(sqlm().isValidDatabase(dir_.file("other")));
    EXPECT_FALSE(sqlm().isValidDatabase(missing));
    EXPECT_FALSE(sqlm().isValidDatabase(dir_.path().string()));
    EXPECT_FALSE(sqlm().open(dir_.file("other")));
}

TEST_F(SQLiteTest, SchemaWhoseThirdStatementFailsKeepsTheFirstTwoAndClosesTheConnection) {
    sqlm().close();
    const std::string script = dir_.file("broken.sql");
    writeFile(script,
              "-- two good tables, then a duplicate\n"
              "CREATE TABLE A (\n  x INTEGER\n);\n"
              "CREATE TABLE B (y TEXT); /* fine */\n"
              "CREATE TABLE A (z INTEGER);\n"
              "CREATE TABLE C (w INTEGER);\n");
    sqlm().setSchemaPath(script);
    const std::string db = dir_.file("broken.sqlite");
    CaptureStdout();
    EXPECT_FALSE(sqlm().create(db));
    const auto lines = linesOf(GetCapturedStdout());
    EXPECT_FALSE(sqlm().isOpen());
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "CREATE TABLE A (z INTEGER)");
    EXPECT_TRUE(testing::hasShape(lines[1], "SQLite: execQuery (#): table A already exists (1)"))
        << lines[1];
    EXPECT_TRUE(testing::hasShape(lines[2], "SQLite: create(at:_:) (#): * (#)")) << lines[2];
    ASSERT_TRUE(std::filesystem::exists(db));
    EXPECT_EQ(rawTexts(db, "SELECT name FROM sqlite_master WHERE type='table' ORDER BY name"),
              (std::vector<std::string>{"A", "B"}));
}

TEST_F(SQLiteTest, MissingSchemaGivesAnEmptyDatabaseAndAFailingInitializerClosesIt) {
    sqlm().close();
    sqlm().setSchemaPath(std::nullopt);
    ASSERT_TRUE(sqlm().create(dir_.file("empty.sqlite")));
    EXPECT_EQ(scalar("SELECT count(*) FROM sqlite_master"), 0);
    EXPECT_EQ(scalar("PRAGMA foreign_keys"), 1);
    sqlm().close();

    sqlm().setSchemaPath(dir_.file("no-such-script.sql"));
    CaptureStdout();
    bool ran = false;
    EXPECT_FALSE(sqlm().create(dir_.file("init.sqlite"), [&](SQLite& db) {
        ran = true;
        // Foreign keys are still off while the initializer runs.
        EXPECT_EQ(scalar("PRAGMA foreign_keys"), 0);
        return db.execQuery("CREATE TABLE X (a)") && false;
    }));
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_TRUE(ran);
    EXPECT_FALSE(sqlm().isOpen());

    // An unreadable script is reported, and creation goes on as if there were none.
    writeFile(dir_.file("latin2.sql"), "CREATE TABLE T (a); -- \xA3\xF3\x64\xBC\n");
    const std::pair<std::string, std::string> unreadable[] = {
        {dir_.path().string(), "Is a directory"},
        {dir_.file("latin2.sql"), "Invalid or incomplete multibyte or wide character"}};
    int n = 0;
    for (const auto& [script, reason] : unreadable) {
        sqlm().setSchemaPath(script);
        CaptureStdout();
        ASSERT_TRUE(sqlm().create(dir_.file("unreadable" + std::to_string(++n))));
        const std::string out = GetCapturedStdout();
        EXPECT_TRUE(testing::hasShape(out, "Error: " + reason + ". contentOfFileAt:#\n")) << out;
        EXPECT_EQ(scalar("SELECT count(*) FROM sqlite_master"), 0);
        sqlm().close();
    }
}

TEST_F(SQLiteTest, SelectNeverRunsStatementsWithoutColumns) {
    ASSERT_TRUE(sqlm().execQuery("INSERT INTO PlayerInfo (name, address) VALUES ('a', 'b')"));
    auto result = sqlm().select("DELETE FROM PlayerInfo");
    ASSERT_TRUE(result.has_value());
    EXPECT_TRUE(result->empty());
    EXPECT_EQ(scalar("SELECT count(*) FROM PlayerInfo"), 1);

    auto empty = sqlm().select("SELECT * FROM Game");
    ASSERT_TRUE(empty.has_value());
    EXPECT_TRUE(empty->empty());
    EXPECT_TRUE(sqlm().execQuery(""));
    EXPECT_TRUE(sqlm().execQuery(" \n\t"));

    CaptureStdout();
    EXPECT_FALSE(sqlm().select("SELECT * FROM Nowhere").has_value());
    EXPECT_FALSE(sqlm().execQuery("DELETE FROM Nowhere"));
    const auto lines = linesOf(GetCapturedStdout());
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_TRUE(
        testing::hasShape(lines[0], "SQLite: select(query:) (#): no such table: Nowhere (1)"))
        << lines[0];
    EXPECT_EQ(lines[1], "DELETE FROM Nowhere");
    EXPECT_TRUE(testing::hasShape(lines[2], "SQLite: execQuery (#): * (1)"));
}

TEST_F(SQLiteTest, InsertAndUpdateReportFailuresInTheirOwnWords) {
    CaptureStdout();
    EXPECT_FALSE(sqlm().insert("Deal", {}).has_value());
    EXPECT_FALSE(sqlm().update("Deal", {}));
    EXPECT_EQ(GetCapturedStdout(), "");

    CaptureStdout();
    // No game 999: the reference is refused now that foreign keys are on.
    EXPECT_FALSE(
        sqlm()
            .insert("Deal", {{"gameId", DataValue::integer(999)}, {"name", DataValue::text("x")}})
            .has_value());
    auto lines = linesOf(GetCapturedStdout());
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(testing::hasShape(
        lines[0], "SQLite: insert(table:fields:) (#): FOREIGN KEY constraint failed (19)"))
        << lines[0];

    const auto id = sqlm().insert(
        "PlayerInfo", {{"name", DataValue::text("ann")}, {"address", DataValue::text("10.0.0.1")}});
    ASSERT_TRUE(id.has_value());
    CaptureStdout();
    EXPECT_FALSE(sqlm().update("PlayerInfo",
                               {{"name", DataValue::text("x")}, {"id", DataValue::integer(*id)}}));
    EXPECT_FALSE(sqlm().update(
        "PlayerInfo", {{"id", DataValue::integer(std::nullopt)}, {"name", DataValue::text("x")}}));
    lines = linesOf(GetCapturedStdout());
    ASSERT_EQ(lines.size(), 2u);
    for (const auto& line : lines) {
        EXPECT_TRUE(testing::hasShape(line, "Error: a field id not found. update(table:fields:):#"))
            << line;
    }
    EXPECT_EQ(rawTexts(path(), "SELECT name FROM PlayerInfo"), std::vector<std::string>{"ann"});

    // An id nobody has: nothing changes, and that is no failure.
    EXPECT_TRUE(sqlm().update(
        "PlayerInfo", {{"id", DataValue::integer(*id + 100)}, {"name", DataValue::text("ghost")}}));
    EXPECT_TRUE(sqlm().update("PlayerInfo",
                              {{"id", DataValue::integer(*id)}, {"name", DataValue::text("bob")}}));
    EXPECT_EQ(rawTexts(path(), "SELECT name || '|' || address FROM PlayerInfo"),
              std::vector<std::string>{"bob|10.0.0.1"});

    // Statements kept for later inserts never keep the connection from closing.
    sqlm().close();
    EXPECT_FALSE(sqlm().isOpen());
}

TEST_F(SQLiteTest, TextIsStoredTrimmedAndConvertedAndReadBackNatural) {
    ASSERT_TRUE(sqlm().execQuery("CREATE TABLE V (id INTEGER PRIMARY KEY, t, f, b, n)"));
    const Bytes blob{0, 1, 2, 255};
    const auto id = sqlm().insert("V", {{"t", DataValue::text("  Łukasz Żółć\r\n")},
                                        {"f", DataValue::floating(2.5)},
                                        {"b", DataValue::blob(blob)},
                                        {"n", DataValue::integer(std::nullopt)}});
    ASSERT_TRUE(id.has_value());
    EXPECT_EQ(rawTexts(path(), "SELECT t FROM V"), std::vector<std::string>{"L~ukasz Z~o~l~c~"});
    EXPECT_EQ(rawTexts(path(), "SELECT typeof(n) FROM V"), std::vector<std::string>{"null"});

    auto rows = sqlm().select("SELECT * FROM V");
    ASSERT_TRUE(rows && rows->size() == 1);
    const RowData& row = rows->array[0];
    EXPECT_EQ(row["t"]->data, DataValue::text("Łukasz Żółć"));
    EXPECT_EQ(row["f"]->data, DataValue::floating(2.5));
    EXPECT_EQ(row["b"]->data, DataValue::blob(blob));
    EXPECT_EQ(row["n"]->data, DataValue::null());
    EXPECT_EQ(row["id"]->data, DataValue::integer(*id));
    EXPECT_FALSE(row["missing"].has_value());

    // Empty and white-space-only texts: stored empty, read as text without a value; a pair
    // typed into the database comes back as the letter.
    ASSERT_TRUE(
        sqlm().insert("V", {{"t", DataValue::text(" \t ")}, {"b", DataValue::blob(Bytes{})}}));
    ASSERT_TRUE(sqlm().execQuery("INSERT INTO V (t) VALUES ('za~')"));
    rows = sqlm().select("SELECT t, b FROM V WHERE id > " + std::to_string(*id) + " ORDER BY id");
    ASSERT_TRUE(rows && rows->size() == 2);
    EXPECT_EQ(rows->array[0]["t"]->data, DataValue::text(std::nullopt));
    EXPECT_EQ(rows->array[0]["b"]->data, DataValue::null());
    EXPECT_EQ(rows->array[1]["t"]->data, DataValue::text("zą"));

    // Invalid UTF-8 in a text column reads as text without a value.
    ASSERT_TRUE(sqlm().execQuery("INSERT INTO V (t) VALUES (CAST(x'C328' AS TEXT))"));
    rows = sqlm().select("SELECT t FROM V ORDER BY id DESC LIMIT 1");
    ASSERT_TRUE(rows && rows->size() == 1);
    EXPECT_EQ(rows->array[0]["t"]->data, DataValue::text(std::nullopt));
}

TEST_F(SQLiteTest, WithoutADatabaseStatementsAreNotReadyAndReported) {
    sqlm().close();
    auto [status, statement] = sqlm().fetchStatement("SELECT 1");
    EXPECT_EQ(status, SQLiteStatusCode::notReadyToWork);
    EXPECT_FALSE(statement.hasHandle());
    EXPECT_FALSE(sqlm().execQuery("SELECT 1"));
    CaptureStdout();
    EXPECT_FALSE(sqlm().select("SELECT 1").has_value());
    const auto lines = linesOf(GetCapturedStdout());
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].rfind("SQLite: select(query:) (", 0), 0u) << lines[0];
}

TEST_F(SQLiteTest, QueueRunsBlocksOneAtATimeInOrder) {
    std::vector<int> order;
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
    for (int i = 0; i < 50; ++i) {
        sqlm().async([&, i] {
            if (running.fetch_add(1) != 0) {
                overlapped = true;
            }
            order.push_back(i);
            running.fetch_sub(1);
        });
    }
    sqlm().drain();
    EXPECT_FALSE(overlapped);
    ASSERT_EQ(order.size(), 50u);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(order[i], i);
    }
}

// One deal to hang elections on; its id.
std::int64_t storedDeal() {
    auto game = Game::make("Gra", "Admin");
    auto deal = game && game->save() ? Deal::make(game->id, "Zadanie") : nullptr;
    return deal && deal->save() ? deal->id : 0;
}

std::int64_t rawCount(const std::string& path, const std::string& query) {
    sqlite3* db = nullptr;
    sqlite3_stmt* stmt = nullptr;
    std::int64_t count = -1;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
        sqlite3_prepare_v2(db, query.c_str(), -1, &stmt, nullptr) == SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW) {
        count = sqlite3_column_int64(stmt, 0);
    }
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return count;
}

// The blocks waiting together run in one transaction; each one's failure stays its own, and
// the change announcements go out after the commit, for committed rows only.
TEST_F(SQLiteTest, WaitingBlocksCommitTogetherAndOnlyCommittedRowsAreAnnounced) {
    const std::int64_t deal = storedDeal();
    ASSERT_GT(deal, 0);
    std::vector<std::int64_t> seenAtPost;  // on the queue only
    auto token = NotificationCenter::defaultCenter().addObserver(
        toString(Event::electionTableDidChange), [&] {
            // Another connection sees only committed rows.
            seenAtPost.push_back(rawCount(path(), "SELECT count(*) FROM Election"));
        });
    std::promise<void> gate;
    sqlm().async([opened = gate.get_future().share()] { opened.wait(); });
    const auto store = [&](std::int64_t dealId, const std::string& player, bool fail) {
        sqlm().async([dealId, player, fail] {
            auto election = Election::make(dealId, player, "5");
            if (election && election->save()) {
                post(Event::electionTableDidChange);
            }
            if (fail) {
                throw std::runtime_error("after its insert");
            }
        });
    };
    store(deal, "A", false);
    store(deal + 100, "B", false);  // no such deal: the insert fails, nothing is announced
    store(deal, "C", true);         // stored, then the block fails: rolled back, not announced
    store(deal, "D", false);
    CaptureStdout();
    gate.set_value();
    sqlm().drain();
    const std::string printed = GetCapturedStdout();
    NotificationCenter::defaultCenter().removeObserver(token);

    EXPECT_NE(printed.find("insert(table:fields:)"), std::string::npos) << printed;
    EXPECT_NE(printed.find("sqlite.manager: a block failed: after its insert"), std::string::npos)
        << printed;
    auto rows = sqlm().select("SELECT playerName FROM Election ORDER BY id");
    ASSERT_TRUE(rows);
    std::vector<std::string> names;
    for (const auto& row : rows->array) {
        names.push_back(row["playerName"]->data.textValue().value_or(""));
    }
    EXPECT_EQ(names, (std::vector<std::string>{"A", "D"}));
    // Two announcements, both after the one commit that stored both rows.
    EXPECT_EQ(seenAtPost, (std::vector<std::int64_t>{2, 2}));
}

// Closing from the queue in the middle of a batch commits what the batch stored so far (and
// announces it); the blocks behind the close find no database.
TEST_F(SQLiteTest, ClosingInsideABatchCommitsTheBlocksBeforeIt) {
    const std::int64_t deal = storedDeal();
    ASSERT_GT(deal, 0);
    std::atomic<int> announced{0};
    auto token = NotificationCenter::defaultCenter().addObserver(
        toString(Event::electionTableDidChange), [&] { ++announced; });
    std::promise<void> gate;
    sqlm().async([opened = gate.get_future().share()] { opened.wait(); });
    std::atomic<int> saved{0};
    std::atomic<int> refused{0};
    const auto store = [&](const std::string& player) {
        sqlm().async([&, deal, player] {
            auto election = Election::make(deal, player, "1");
            if (election && election->save()) {
                ++saved;
                post(Event::electionTableDidChange);
            } else {
                ++refused;
            }
        });
    };
    store("A");
    store("B");
    sqlm().async([] { sqlm().closeAfterPendingWork(); });
    store("C");
    CaptureStdout();
    gate.set_value();
    sqlm().drain();
    GetCapturedStdout();
    NotificationCenter::defaultCenter().removeObserver(token);
    EXPECT_FALSE(sqlm().isOpen());
    EXPECT_EQ(saved.load(), 2);
    EXPECT_EQ(refused.load(), 1);
    EXPECT_EQ(announced.load(), 2);
    EXPECT_EQ(rawCount(path(), "SELECT count(*) FROM Election"), 2);
}

// Another process reading the file, even inside a long read transaction, never makes a
// store fail.
TEST_F(SQLiteTest, ALongReadElsewhereNeverFailsAStore) {
    const std::int64_t deal = storedDeal();
    ASSERT_GT(deal, 0);
    auto mode = sqlm().select("PRAGMA journal_mode");
    ASSERT_TRUE(mode && !mode->empty());
    EXPECT_EQ(mode->array.front()["journal_mode"]->data.textValue(), "wal");
    EXPECT_EQ(scalar("PRAGMA synchronous"), 2);  // FULL

    sqlite3* reader = nullptr;
    sqlite3_stmt* count = nullptr;
    ASSERT_EQ(sqlite3_open_v2(path().c_str(), &reader, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(reader, "BEGIN", nullptr, nullptr, nullptr), SQLITE_OK);
    ASSERT_EQ(sqlite3_prepare_v2(reader, "SELECT count(*) FROM Election", -1, &count, nullptr),
              SQLITE_OK);
    ASSERT_EQ(sqlite3_step(count), SQLITE_ROW);  // the read transaction holds its snapshot
    EXPECT_EQ(sqlite3_column_int64(count, 0), 0);
    sqlite3_reset(count);

    std::atomic<int> stored{0};
    CaptureStdout();
    for (int i = 0; i < 40; ++i) {
        sqlm().async([&, deal, i] {
            auto election = Election::make(deal, "P" + std::to_string(i), "3");
            if (election && election->save()) {
                ++stored;
            }
        });
        if (i % 10 == 9) {
            sqlm().drain();  // several commits while the reader holds on
        }
    }
    sqlm().drain();
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(stored.load(), 40);
    ASSERT_EQ(sqlite3_step(count), SQLITE_ROW);
    EXPECT_EQ(sqlite3_column_int64(count, 0), 0);  // still the reader's snapshot
    sqlite3_finalize(count);
    sqlite3_exec(reader, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(reader);
    EXPECT_EQ(rawCount(path(), "SELECT count(*) FROM Election"), 40);
}

TEST(SQLiteValuesTest, StatusCodesAndValueTypesConvertOnlyKnownValues) {
    EXPECT_EQ(sqliteStatusCodeFrom(0), SQLiteStatusCode::ok);
    EXPECT_EQ(sqliteStatusCodeFrom(19), SQLiteStatusCode::constraint);
    EXPECT_EQ(sqliteStatusCodeFrom(23), SQLiteStatusCode::authDeniedUTH);
    EXPECT_EQ(sqliteStatusCodeFrom(26), SQLiteStatusCode::notADatabase);
    EXPECT_EQ(sqliteStatusCodeFrom(101), SQLiteStatusCode::done);
    EXPECT_EQ(sqliteStatusCodeFrom(1002), SQLiteStatusCode::invalidFileFormat);
    for (int bad : {-1, 27, 28, 99, 102, 999, 1003, 2067 /* extended constraint code */}) {
        EXPECT_FALSE(sqliteStatusCodeFrom(bad).has_value()) << bad;
    }
    EXPECT_EQ(toString(DataValueType::isNull), "isNull");
    EXPECT_EQ(toString(DataValueType::isBlob), "isBlob");
    EXPECT_EQ(dataValueTypeFrom("isFloat"), DataValueType::isFloat);
    EXPECT_FALSE(dataValueTypeFrom("isfloat").has_value());
    EXPECT_FALSE(dataValueTypeFrom("").has_value());
    EXPECT_EQ(DataValue::text(std::nullopt).type(), DataValueType::isText);
    EXPECT_EQ(DataValue().type(), DataValueType::isNull);
}

}  // namespace
}  // namespace pointlane
