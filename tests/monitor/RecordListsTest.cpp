#include <QTest>
#include <memory>
#include <string>

#include "MonitorFixture.h"
#include "monitor/DealTable.h"
#include "monitor/ElectionTable.h"
#include "monitor/GameTable.h"
#include "monitor/HistoryView.h"
#include "monitor/OneColumnTableView.h"
#include "monitor/PlayersTable.h"
#include "storage/Deal.h"
#include "storage/Election.h"
#include "storage/Game.h"
#include "storage/PlayerInfo.h"
#include "support/Event.h"

namespace pointlane {
namespace {

using testkit::MonitorFixture;

std::int64_t saveGame(const std::string& name, const std::string& admin) {
    auto game = Game::make(name, admin);
    EXPECT_TRUE(game && game->save());
    return game ? game->id : 0;
}

std::int64_t saveDeal(std::int64_t game, const std::string& title) {
    auto deal = Deal::make(game, title);
    EXPECT_TRUE(deal && deal->save());
    return deal ? deal->id : 0;
}

void saveElection(std::int64_t deal, const std::string& player, const std::string& symbol) {
    auto election = Election::make(deal, player, symbol);
    EXPECT_TRUE(election && election->save());
}

template <class Table>
std::vector<int> markedRows(Table& table) {
    std::vector<int> rows;
    for (int row = 0; row < table.tableView->numberOfRows(); ++row) {
        if (auto* cell = table.cachedCell(row); cell != nullptr && cell->isSelected()) {
            rows.push_back(row);
        }
    }
    return rows;
}

template <class Record, class Table>
std::shared_ptr<Record> recordAt(Table& table, int row) {
    const std::any value = table.objectValue(row);
    const auto* record = std::any_cast<std::shared_ptr<Record>>(&value);
    return record != nullptr ? *record : nullptr;
}

void clickRow(OneColumnTableView* view, int row) {
    const QRect rect = view->visualRect(view->model()->index(row, 0));
    QTest::mouseClick(view->viewport(), Qt::LeftButton, {}, rect.center());
}

class RecordListsTest : public MonitorFixture {
  protected:
    std::unique_ptr<HistoryView> openHistory() {
        auto view = std::make_unique<HistoryView>();
        view->resize(900, 400);
        view->show();
        settle();
        return view;
    }
};

TEST_F(RecordListsTest, EmptyDatabaseShowsNoRowsAndMarksNothing) {
    auto history = openHistory();
    PlayersTable players;
    settle();
    EXPECT_EQ(players.tableView->numberOfRows(), 0);
    EXPECT_EQ(history->gameTable->tableView->numberOfRows(), 0);
    EXPECT_EQ(history->dealTable->tableView->numberOfRows(), 0);
    EXPECT_EQ(history->electionTable->tableView->numberOfRows(), 0);
    EXPECT_EQ(history->gameTable->cachedCell(0), nullptr);
    EXPECT_EQ(history->dealTable->gameId(), std::nullopt);
}

TEST_F(RecordListsTest, GamesNewestFirstChainToTheChosenGamesDealsAndTheirElections) {
    const auto older = saveGame("Gra o świętą ćmę", "Łukasz");
    const auto newer = saveGame("Sprint 42", "Żaneta");
    const auto first = saveDeal(older, "Płatności");
    const auto second = saveDeal(older, "Wyszukiwarka");
    saveDeal(newer, "Logowanie");
    saveElection(first, "Ola", "3");
    saveElection(second, "Łukasz", "8");
    saveElection(second, "Żaneta", "13");

    auto history = openHistory();
    GameTable& games = *history->gameTable;
    ASSERT_EQ(games.tableView->numberOfRows(), 2);
    EXPECT_EQ(recordAt<Game>(games, 0)->id, newer);
    EXPECT_EQ(recordAt<Game>(games, 1)->name, "Gra o świętą ćmę");
    EXPECT_EQ(recordAt<Game>(games, 2), nullptr);
    EXPECT_EQ(markedRows(games), std::vector<int>{0});
    // The first selection came before the deal list was chained: nothing loaded yet.
    EXPECT_EQ(history->dealTable->tableView->numberOfRows(), 0);
    EXPECT_EQ(history->electionTable->tableView->numberOfRows(), 0);

    clickRow(games.tableView, 1);
    settle();

    DealTable& deals = *history->dealTable;
    EXPECT_EQ(markedRows(games), std::vector<int>{1});
    EXPECT_EQ(deals.gameId(), older);
    ASSERT_EQ(deals.tableView->numberOfRows(), 2);
    EXPECT_EQ(recordAt<Deal>(deals, 0)->id, second);
    EXPECT_EQ(markedRows(deals), std::vector<int>{0});

    ElectionTable& elections = *history->electionTable;
    EXPECT_EQ(elections.dealId(), second);
    ASSERT_EQ(elections.tableView->numberOfRows(), 2);
    EXPECT_EQ(recordAt<Election>(elections, 0)->playerName, "Żaneta");
    EXPECT_EQ(markedRows(elections), std::vector<int>{0});

    // Choosing the older deal shows its one election.
    clickRow(deals.tableView, 1);
    settle();
    EXPECT_EQ(markedRows(deals), std::vector<int>{1});
    ASSERT_EQ(elections.tableView->numberOfRows(), 1);
    EXPECT_EQ(recordAt<Election>(elections, 0)->symbol, "3");

    // Stored on the database queue, as the request handlers do: the deals are re-read for the
    // game shown, not the newest one, and the newest deal is marked.
    std::int64_t added = 0;
    sqlm().async([&] {
        added = saveDeal(older, "Koszyk");
        post(Event::dealTableDidChange);
        saveDeal(newer, "Nie dla tej gry");
        post(Event::dealTableDidChange);
    });
    settle();
    ASSERT_EQ(deals.tableView->numberOfRows(), 3);
    EXPECT_EQ(recordAt<Deal>(deals, 0)->name, "Koszyk");
    EXPECT_EQ(markedRows(deals), std::vector<int>{0});
    EXPECT_EQ(elections.dealId(), added);
    sqlm().async([&] {
        saveElection(added, "Żaneta", "?");
        post(Event::electionTableDidChange);
    });
    settle();
    ASSERT_EQ(elections.tableView->numberOfRows(), 1);
    EXPECT_EQ(recordAt<Election>(elections, 0)->symbol, "?");

    // A game without deals empties both columns.
    saveGame("Pusta gra", "Ola");
    post(Event::gameTableDidChange);
    settle();
    EXPECT_EQ(markedRows(games), std::vector<int>{0});
    EXPECT_EQ(deals.tableView->numberOfRows(), 0);
    EXPECT_EQ(elections.tableView->numberOfRows(), 0);
}

TEST_F(RecordListsTest, PlayerLoggingInAgainUpdatesThePlayersKeepingTheSelection) {
    auto anna = PlayerInfo::make("Anna", "192.168.1.10");
    auto lukasz = PlayerInfo::make("Łukasz", "192.168.1.11");
    ASSERT_TRUE(anna && anna->save() && lukasz && lukasz->save());

    PlayersTable players;
    players.resize(400, 300);
    players.show();
    settle();
    ASSERT_EQ(players.tableView->numberOfRows(), 2);
    EXPECT_TRUE(markedRows(players).empty()) << "the players list selects nothing by itself";
    clickRow(players.tableView, 1);
    ASSERT_EQ(markedRows(players), std::vector<int>{1});

    sqlm().async([&] {
        auto again = PlayerInfo::make("Łukasz", "10.0.0.7");
        again->id = lukasz->id;
        if (again->save()) {
            post(Event::playerTableDidChange);
        }
        auto bartek = PlayerInfo::make("Bartek", "10.0.0.8");
        if (bartek->save()) {
            post(Event::playerTableDidChange);
        }
    });
    settle();
    ASSERT_EQ(players.tableView->numberOfRows(), 3);
    EXPECT_EQ(recordAt<PlayerInfo>(players, 0)->name, "Anna");
    EXPECT_EQ(recordAt<PlayerInfo>(players, 2)->name, "Łukasz");
    EXPECT_EQ(recordAt<PlayerInfo>(players, 2)->address, "10.0.0.7");
    EXPECT_EQ(players.tableView->selectedRow(), 1);
    EXPECT_EQ(markedRows(players), std::vector<int>{1});
}

TEST_F(RecordListsTest, ADestroyedListHearsNothingAndItsPendingRefreshDoesNotRun) {
    saveGame("Sprint 42", "Żaneta");
    auto games = std::make_unique<GameTable>();
    settle();
    const auto before = queue()->ran();
    post(Event::gameTableDidChange);  // schedules a refresh of the list ...
    games.reset();                    // ... which is gone before the loop gets to it
    settle();
    EXPECT_EQ(queue()->ran(), before + 1) << "the block ran and found the list gone";
    post(Event::gameTableDidChange);
    EXPECT_EQ(queue()->pending(), 0u) << "no registration is left";
}

}  // namespace
}  // namespace pointlane
