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

// Counts the posts of one event for the life of the object.
class EventCounter {
  public:
    explicit EventCounter(const std::string& name)
        : token_(NotificationCenter::defaultCenter().addObserver(name, [this] { ++count_; })) {}
    ~EventCounter() { NotificationCenter::defaultCenter().removeObserver(token_); }
    int count() const { return count_; }

  private:
    std::atomic<int> count_{0};
    NotificationCenter::Token token_;
};

class RecordsTest : public testing::StorageFixture {};

TEST_F(RecordsTest, ConstructionFromValuesTrimsAndRefusesEmptyOrMissingParts) {
    EXPECT_EQ(Game::make("   ", "admin"), nullptr);
    EXPECT_EQ(Game::make("game", "\t\n"), nullptr);
    auto game = Game::make("  Sprint 7 \n", " Ala ");
    ASSERT_NE(game, nullptr);
    EXPECT_EQ(game->name, "Sprint 7");
    EXPECT_EQ(game->admin, "Ala");
    EXPECT_EQ(game->id, 0);
    EXPECT_LE(std::chrono::abs(Game::Clock::now() - game->date), std::chrono::seconds(5));

    EXPECT_EQ(Deal::make(std::nullopt, "t"), nullptr);
    EXPECT_EQ(Deal::make(0, "t"), nullptr);
    EXPECT_EQ(Deal::make(-3, "t"), nullptr);
    EXPECT_EQ(Deal::make(1, " \u00A0 "), nullptr);
    ASSERT_NE(Deal::make(1, " t "), nullptr);
    EXPECT_EQ(Deal::make(1, " t ")->name, "t");

    EXPECT_EQ(Election::make(std::nullopt, "p", "5"), nullptr);
    EXPECT_EQ(Election::make(0, "p", "5"), nullptr);
    EXPECT_EQ(Election::make(1, std::nullopt, "5"), nullptr);
    EXPECT_EQ(Election::make(1, "p", std::nullopt), nullptr);
    EXPECT_EQ(Election::make(1, "p", "  "), nullptr);
    ASSERT_NE(Election::make(2, " p ", " ? "), nullptr);
    EXPECT_EQ(Election::make(2, " p ", " ? ")->symbol, "?");

    EXPECT_EQ(PlayerInfo::make(std::nullopt, "a"), nullptr);
    EXPECT_EQ(PlayerInfo::make("n", std::nullopt), nullptr);
    EXPECT_EQ(PlayerInfo::make("", "a"), nullptr);
    ASSERT_NE(PlayerInfo::make(" n ", " 10.0.0.2 "), nullptr);
    EXPECT_EQ(PlayerInfo::make(" n ", " 10.0.0.2 ")->address, "10.0.0.2");
}

TEST_F(RecordsTest, SaveInsertsThenUpdatesAndQueriesGiveNewestFirst) {
    EXPECT_FALSE(Game::games().has_value());
    EXPECT_FALSE(Deal::dealsFor(1).has_value());
    EXPECT_FALSE(Election::electionsFor(1).has_value());
    EXPECT_FALSE(PlayerInfo::all().has_value());

    auto first = Game::make("first", "ala");
    auto second = Game::make("second", "ola");
    ASSERT_TRUE(first->save());
    ASSERT_TRUE(second->save());
    EXPECT_GT(first->id, 0);
    EXPECT_GT(second->id, first->id);

    // Saving a stored record updates its row instead of adding one.
    second->name = "second renamed";
    ASSERT_TRUE(second->save());
    EXPECT_EQ(scalar("SELECT count(*) FROM Game"), 2);

    auto games = Game::games();
    ASSERT_TRUE(games.has_value());
    ASSERT_EQ(games->size(), 2u);
    EXPECT_EQ((*games)[0]->id, second->id);
    EXPECT_EQ((*games)[0]->name, "second renamed");
    EXPECT_EQ((*games)[1]->admin, "ala");
    // The date survives to the second, in local time.
    EXPECT_EQ((*games)[1]->date, std::chrono::floor<std::chrono::seconds>(first->date));

    auto d1 = Deal::make(first->id, "login page");
    auto d2 = Deal::make(first->id, "logout page");
    auto other = Deal::make(second->id, "elsewhere");
    ASSERT_TRUE(d1->save() && d2->save() && other->save());
    auto deals = Deal::dealsFor(first->id);
    ASSERT_TRUE(deals.has_value());
    ASSERT_EQ(deals->size(), 2u);
    EXPECT_EQ((*deals)[0]->name, "logout page");
    EXPECT_EQ((*deals)[1]->gameId, first->id);

    auto e1 = Election::make(d1->id, "ala", "5");
    auto e2 = Election::make(d1->id, "ola", "8");
    ASSERT_TRUE(e1->save() && e2->save());
    auto elections = Election::electionsFor(d1->id);
    ASSERT_TRUE(elections.has_value());
    ASSERT_EQ(elections->size(), 2u);
    EXPECT_EQ((*elections)[0]->symbol, "8");
    EXPECT_EQ((*elections)[1]->playerName, "ala");
    EXPECT_FALSE(Election::electionsFor(d2->id).has_value());

    // A reference to a game that does not exist is refused and the record stays unstored.
    auto orphan = Deal::make(first->id + 1000, "orphan");
    ::testing::internal::CaptureStdout();
    EXPECT_FALSE(orphan->save());
    EXPECT_NE(::testing::internal::GetCapturedStdout().find("insert(table:fields:)"),
              std::string::npos);
    EXPECT_EQ(orphan->id, 0);
}

TEST_F(RecordsTest, DescriptionsHaveTheirFixedShape) {
    auto game = Game::make("g", "a");
    game->id = 7;
    game->date = Game::Clock::from_time_t(1700000000);  // 2023-11-14 22:13:20 UTC
    EXPECT_EQ(game->description(),
              "\n   id: 7,\n name: g,\n date: 2023-11-14 22:13:20 +0000,\nadmin: a,\n");
    auto deal = Deal::make(7, "t");
    deal->id = 3;
    EXPECT_EQ(deal->description(), "\n     id: 3,\ngame id: 7,\n   name: t,\n");
    auto player = PlayerInfo::make("p", "10.0.0.1");
    EXPECT_EQ(player->description(), "\n     id: 0,\n   name: p,\naddress: 10.0.0.1,\n");
}

TEST_F(RecordsTest, InvalidRowsAreSkippedByTheListQueries) {
    ASSERT_TRUE(sqlm().execQuery(
        "INSERT INTO Game (name, date, admin) VALUES ('iso', '2024-01-02T10:11:12', 'a')"));
    ::testing::internal::CaptureStdout();
    EXPECT_FALSE(Game::games().has_value());  // only an invalid row: nothing
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    ASSERT_TRUE(sqlm().execQuery(
        "INSERT INTO Game (name, date, admin) VALUES ('ok', '2024-01-02 10:11:12', 'a'),"
        "(' ', '2024-01-02 10:11:12', 'a'), ('bad day', '2024-02-30 10:11:12', 'a')"));
    auto games = Game::games();
    ASSERT_TRUE(games.has_value());
    ASSERT_EQ(games->size(), 1u);
    EXPECT_EQ((*games)[0]->name, "ok");
    const auto gameId = (*games)[0]->id;

    // Rows the constraints would refuse, written with enforcement off as a damaged file might.
    ASSERT_TRUE(sqlm().execQuery("PRAGMA foreign_keys = OFF"));
    ASSERT_TRUE(sqlm().execQuery("INSERT INTO Deal (gameId, name) VALUES (0, 'zero'), (" +
                                 std::to_string(gameId) + ", 'fine')"));
    ASSERT_TRUE(
        sqlm().execQuery("INSERT INTO Election (dealId, playerName, symbol) VALUES "
                         "(-1, 'p', '1')"));
    ASSERT_TRUE(sqlm().execQuery("PRAGMA foreign_keys = ON"));
    auto deals = Deal::dealsFor(gameId);
    ASSERT_TRUE(deals && deals->size() == 1u);
    EXPECT_EQ((*deals)[0]->name, "fine");
    EXPECT_FALSE(Deal::dealsFor(0).has_value());
    EXPECT_FALSE(Election::electionsFor(-1).has_value());

    // Row-level rules: wrong kinds and missing values fail the whole row.
    RowData row;
    EXPECT_EQ(Deal::fromRow(row), nullptr);
    row.set({"id", DataValue::integer(1)});
    row.set({"gameId", DataValue::null()});
    row.set({"name", DataValue::text("x")});
    EXPECT_EQ(Deal::fromRow(row), nullptr);
    row.set({"gameId", DataValue::integer(2)});
    ASSERT_NE(Deal::fromRow(row), nullptr);
    row.set({"id", DataValue::text("1")});
    EXPECT_EQ(Deal::fromRow(row), nullptr);
    EXPECT_EQ(PlayerInfo::fromRow(std::nullopt), nullptr);
}

TEST_F(RecordsTest, PolishLettersAreStoredConvertedAndReadBackThroughEveryQuery) {
    auto game = Game::make("Gra źródłowa", "Żaneta");
    ASSERT_TRUE(game->save());
    auto deal = Deal::make(game->id, "Łączenie kont");
    ASSERT_TRUE(deal->save());
    auto election = Election::make(deal->id, "Ślązak", "½ ąę");
    ASSERT_TRUE(election->save());
    auto player = PlayerInfo::make("Paweł Gęś", "fe80::1");
    ASSERT_TRUE(player->save());

    EXPECT_EQ(rawTexts(path(), "SELECT name FROM Game"),
              std::vector<std::string>{"Gra x~ro~dl~owa"});
    EXPECT_EQ(rawTexts(path(), "SELECT admin FROM Game"), std::vector<std::string>{"Z~aneta"});
    EXPECT_EQ(rawTexts(path(), "SELECT name FROM Deal"),
              std::vector<std::string>{"L~a~czenie kont"});
    EXPECT_EQ(rawTexts(path(), "SELECT symbol FROM Election"), std::vector<std::string>{"½ a~e~"});
    EXPECT_EQ(rawTexts(path(), "SELECT name FROM PlayerInfo"),
              std::vector<std::string>{"Pawel~ Ge~s~"});

    EXPECT_EQ(Game::games()->front()->name, "Gra źródłowa");
    EXPECT_EQ(Game::games()->front()->admin, "Żaneta");
    EXPECT_EQ(Deal::dealsFor(game->id)->front()->name, "Łączenie kont");
    EXPECT_EQ(Election::electionsFor(deal->id)->front()->playerName, "Ślązak");
    EXPECT_EQ(Election::electionsFor(deal->id)->front()->symbol, "½ ąę");
    EXPECT_EQ(PlayerInfo::all()->front()->name, "Paweł Gęś");
    ASSERT_NE(PlayerInfo::player("Paweł Gęś"), nullptr);
    EXPECT_EQ(PlayerInfo::player("Paweł Gęś")->id, player->id);
}

TEST_F(RecordsTest, AllSortsByTheStoredFormSoLWithStrokeFollowsL) {
    for (const char* name : {"Łukasz", "Ma", "Lz", "La", "L9", "Lu"}) {
        ASSERT_TRUE(PlayerInfo::make(name, "1.2.3.4")->save());
    }
    auto all = PlayerInfo::all();
    ASSERT_TRUE(all.has_value());
    std::vector<std::string> names;
    for (const auto& p : *all) {
        names.push_back(p->name);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"L9", "La", "Lu", "Lz", "Łukasz", "Ma"}));
}

TEST_F(RecordsTest, PlayerNamedBindsTheNameAndComparesTheStoredForm) {
    auto quoted = PlayerInfo::make("O'Brien", "10.0.0.1");
    auto polishName = PlayerInfo::make("Michał", "10.0.0.2");
    auto other = PlayerInfo::make("x", "10.0.0.3");
    ASSERT_TRUE(quoted->save() && polishName->save() && other->save());

    ::testing::internal::CaptureStdout();
    auto found = PlayerInfo::player("O'Brien");
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->id, quoted->id);
    ASSERT_NE(PlayerInfo::player("  Michał \n"), nullptr);
    EXPECT_EQ(PlayerInfo::player("  Michał \n")->address, "10.0.0.2");
    // The base letter alone is another name.
    EXPECT_EQ(PlayerInfo::player("Michal"), nullptr);

    // Attempts to change the statement are just names nobody has.
    EXPECT_EQ(PlayerInfo::player("x' OR '1'='1"), nullptr);
    EXPECT_EQ(PlayerInfo::player("x'; DELETE FROM PlayerInfo; --"), nullptr);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(scalar("SELECT count(*) FROM PlayerInfo"), 3);

    // Two rows with one name: the first row wins.
    auto twin = PlayerInfo::make("O'Brien", "10.0.0.9");
    ASSERT_TRUE(twin->save());
    EXPECT_EQ(PlayerInfo::player("O'Brien")->address, "10.0.0.1");

    auto decomposed = PlayerInfo::make("Ja\u0328drek", "10.0.0.4");
    ASSERT_TRUE(decomposed->save());
    ASSERT_NE(PlayerInfo::player("Jądrek"), nullptr);
    EXPECT_EQ(PlayerInfo::player("Jądrek")->id, decomposed->id);
}

TEST_F(RecordsTest, RemoveDeletesTheRowAndAnnouncesIt) {
    auto player = PlayerInfo::make("ann", "10.0.0.1");
    auto keep = PlayerInfo::make("bob", "10.0.0.2");
    ASSERT_TRUE(player->save() && keep->save());
    EventCounter players("playerTableDidChange");
    EventCounter games("gameTableDidChange");

    EXPECT_TRUE(player->remove());
    EXPECT_EQ(players.count(), 1);
    EXPECT_EQ(PlayerInfo::player("ann"), nullptr);
    EXPECT_EQ(scalar("SELECT count(*) FROM PlayerInfo"), 1);

    // Already gone: still a success, still announced.
    EXPECT_TRUE(player->remove());
    EXPECT_EQ(players.count(), 2);

    // Saving never announces; that is the caller's job.
    ASSERT_TRUE(Game::make("g", "a")->save());
    ASSERT_TRUE(PlayerInfo::make("c", "d")->save());
    EXPECT_EQ(games.count(), 0);
    EXPECT_EQ(players.count(), 2);

    sqlm().close();
    EXPECT_FALSE(keep->remove());
    EXPECT_EQ(players.count(), 2);
}

}  // namespace
}  // namespace pointlane
