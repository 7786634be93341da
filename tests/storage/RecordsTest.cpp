#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

#include "StorageFixture.h"
#include "storage/Deal.h"
#include "storage/Election.h"
#include "storage/Game.h"
#include "storage/PlayerInfo.h"
#include "storage/SQLite.h"
#include "support/NotificationCenter.h"

namespace pointlane {
namespace {

class RecordsTest : public testing::StorageFixture {};

TEST_F(RecordsTest, ConstructionTrimsAndRefusesEmptyOrMissingParts) {
    // clang-format off
    const std::vector<bool> made{
        !!Game::make("   ", "admin"), !!Game::make("game", "\t\n"), !!Deal::make(std::nullopt, "t"),
        !!Deal::make(0, "t"), !!Deal::make(-3, "t"), !!Deal::make(1, " \u00A0 "),
        !!Election::make(std::nullopt, "p", "5"), !!Election::make(0, "p", "5"),
        !!Election::make(1, std::nullopt, "5"), !!Election::make(1, "p", std::nullopt),
        !!Election::make(1, "p", "  "), !!PlayerInfo::make(std::nullopt, "a"),
        !!PlayerInfo::make("n", std::nullopt), !!PlayerInfo::make("", "a")};
    // clang-format on
    for (std::size_t i = 0; i < made.size(); ++i) {
        EXPECT_FALSE(made[i]) << "case " << i;
    }
    auto game = Game::make("  Sprint 7 \n", " Ala ");
    ASSERT_TRUE(game);
    EXPECT_EQ(game->name + "|" + game->admin, "Sprint 7|Ala");
    EXPECT_EQ(game->id, 0);
    EXPECT_LE(std::chrono::abs(Game::Clock::now() - game->date), std::chrono::seconds(5));
    EXPECT_EQ(Deal::make(1, " t ")->name, "t");
    EXPECT_EQ(Election::make(2, " p ", " ? ")->symbol, "?");
    EXPECT_EQ(PlayerInfo::make(" n ", " 10.0.0.2 ")->address, "10.0.0.2");
}

TEST_F(RecordsTest, SaveInsertsThenUpdatesAndQueriesGiveNewestFirst) {
    EXPECT_FALSE(Game::games());
    EXPECT_FALSE(Deal::dealsFor(1));
    EXPECT_FALSE(Election::electionsFor(1));
    EXPECT_FALSE(PlayerInfo::all());

    auto first = Game::make("first", "ala");
    auto second = Game::make("second", "ola");
    ASSERT_TRUE(first->save() && second->save());
    EXPECT_GT(second->id, first->id);
    // Saving a stored record updates its row instead of adding one.
    second->name = "second renamed";
    ASSERT_TRUE(second->save());
    auto games = Game::games();
    ASSERT_TRUE(games && games->size() == 2u);
    EXPECT_EQ((*games)[0]->name, "second renamed");
    EXPECT_EQ((*games)[1]->admin, "ala");
    // The date survives to the second, in local time.
    EXPECT_EQ((*games)[1]->date, std::chrono::floor<std::chrono::seconds>(first->date));

    auto d1 = Deal::make(first->id, "login page");
    auto d2 = Deal::make(first->id, "logout page");
    ASSERT_TRUE(d1->save() && d2->save() && Deal::make(second->id, "elsewhere")->save());
    auto deals = Deal::dealsFor(first->id);
    ASSERT_TRUE(deals && deals->size() == 2u);
    EXPECT_EQ((*deals)[0]->name, "logout page");
    EXPECT_EQ((*deals)[1]->gameId, first->id);
    ASSERT_TRUE(Election::make(d1->id, "ala", "5")->save());
    ASSERT_TRUE(Election::make(d1->id, "ola", "8")->save());
    auto elections = Election::electionsFor(d1->id);
    ASSERT_TRUE(elections && elections->size() == 2u);
    EXPECT_EQ((*elections)[0]->symbol, "8");
    EXPECT_EQ((*elections)[1]->playerName, "ala");
    EXPECT_FALSE(Election::electionsFor(d2->id));

    // A reference to a game that does not exist is refused and the record stays unstored.
    auto orphan = Deal::make(first->id + 1000, "orphan");
    ::testing::internal::CaptureStdout();
    EXPECT_FALSE(orphan->save());
    EXPECT_NE(::testing::internal::GetCapturedStdout().find("insert(table:fields:)"),
              std::string::npos);
    EXPECT_EQ(orphan->id, 0);
}

TEST_F(RecordsTest, InvalidRowsAreSkippedByTheListQueries) {
    ASSERT_TRUE(sqlm().execQuery(
        "INSERT INTO Game (name, date, admin) VALUES ('iso', '2024-01-02T10:11:12', 'a')"));
    ::testing::internal::CaptureStdout();
    EXPECT_FALSE(Game::games());  // only an invalid row: nothing
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    ASSERT_TRUE(sqlm().execQuery(
        "INSERT INTO Game (name, date, admin) VALUES ('ok', '2024-01-02 10:11:12', 'a'),"
        "(' ', '2024-01-02 10:11:12', 'a'), ('bad day', '2024-02-30 10:11:12', 'a')"));
    auto games = Game::games();
    ASSERT_TRUE(games && games->size() == 1u);
    EXPECT_EQ((*games)[0]->name, "ok");
    const auto gameId = std::to_string((*games)[0]->id);

    // Rows the constraints would refuse, written with enforcement off as a damaged file might.
    ASSERT_TRUE(sqlm().execQuery(
        "PRAGMA foreign_keys = OFF; INSERT INTO Deal (gameId, name) VALUES (0, 'zero'), (" +
        gameId +
        ", 'fine'); INSERT INTO Election (dealId, playerName, symbol) VALUES (-1, 'p', '1');"
        "PRAGMA foreign_keys = ON"));
    auto deals = Deal::dealsFor((*games)[0]->id);
    ASSERT_TRUE(deals && deals->size() == 1u);
    EXPECT_EQ((*deals)[0]->name, "fine");
    EXPECT_FALSE(Deal::dealsFor(0));
    EXPECT_FALSE(Election::electionsFor(-1));
    // A value of the wrong kind fails the whole row.
    RowData row;
    row.set({"id", DataValue::integer(1)});
    row.set({"gameId", DataValue::integer(2)});
    row.set({"name", DataValue::text("x")});
    ASSERT_TRUE(Deal::fromRow(row));
    row.set({"id", DataValue::text("1")});
    EXPECT_FALSE(Deal::fromRow(row));
}

TEST_F(RecordsTest, PlayersSortByTheStoredFormAreFoundByBoundNamesAndRemovedWithAnAnnouncement) {
    for (const char* name : {"Łukasz", "Ma", "Lz", "O'Brien", "L9", "Michał", "Ja\u0328drek"}) {
        ASSERT_TRUE(PlayerInfo::make(name, name)->save());
    }
    std::vector<std::string> names;
    const auto all = PlayerInfo::all();
    ASSERT_TRUE(all);
    for (const auto& p : *all) {
        names.push_back(p->name);
    }
    // Ł is stored as "L~": after every other L.
    EXPECT_EQ(names, (std::vector<std::string>{"J\u0105drek", "L9", "Lz", "Łukasz", "Ma", "Michał",
                                               "O'Brien"}));

    ::testing::internal::CaptureStdout();
    ASSERT_TRUE(PlayerInfo::player("O'Brien"));
    ASSERT_TRUE(PlayerInfo::player("  Michał \n"));
    EXPECT_EQ(PlayerInfo::player("  Michał \n")->address, "Michał");
    ASSERT_TRUE(PlayerInfo::player("Jądrek"));  // composed the same
    // The base letter alone is another name; attempts to change the statement are just names
    // nobody has.
    for (const char* nobody : {"Michal", "x' OR '1'='1", "x'; DELETE FROM PlayerInfo; --"}) {
        EXPECT_FALSE(PlayerInfo::player(nobody)) << nobody;
    }
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    // Two rows with one name: the first row wins.
    ASSERT_TRUE(PlayerInfo::make("O'Brien", "10.0.0.9")->save());
    EXPECT_EQ(PlayerInfo::player("O'Brien")->address, "O'Brien");

    std::atomic<int> announced{0};
    auto& center = NotificationCenter::defaultCenter();
    const auto token = center.addObserver("playerTableDidChange", [&] { ++announced; });
    auto gone = PlayerInfo::player("Ma");
    EXPECT_TRUE(gone->remove());
    EXPECT_FALSE(PlayerInfo::player("Ma"));
    EXPECT_TRUE(gone->remove());  // already gone: still a success, still announced
    // Saving never announces; that is the caller's job.
    ASSERT_TRUE(PlayerInfo::make("c", "d")->save());
    EXPECT_EQ(announced.load(), 2);
    EXPECT_EQ(scalar("SELECT count(*) FROM PlayerInfo"), 8);
    sqlm().close();
    EXPECT_FALSE(gone->remove());
    EXPECT_EQ(announced.load(), 2);
    center.removeObserver(token);
}

}  // namespace
}  // namespace pointlane
