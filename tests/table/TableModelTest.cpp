#include "table/TableModel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "../storage/StorageFixture.h"
#include "storage/Deal.h"
#include "storage/Election.h"
#include "storage/Game.h"
#include "storage/HistoryExport.h"
#include "storage/HistoryReader.h"

namespace pointlane {
namespace {

using Phase = TableSnapshot::Phase;
using JoinCheck = TableModel::JoinCheck;

std::vector<std::string> names(const TableSnapshot& table) {
    std::vector<std::string> out;
    for (const TableSeat& seat : table.seats) {
        out.push_back(seat.name);
    }
    return out;
}

std::vector<std::string> cardsOf(const TableItem& item) {
    std::vector<std::string> out;
    for (const TableCard& card : item.cards) {
        out.push_back(card.name + "=" + card.card);
    }
    return out;
}

// Ann opens "Sprint"; Bob and Cy join.
class TableModelTest : public ::testing::Test {
  protected:
    void SetUp() override {
        model.gameOpened("Ann", "Sprint");
        model.playerJoined("Bob");
        model.playerJoined("Cy");
    }
    TableModel model;
};

TEST_F(TableModelTest, ALateReaderSeesTheWholeTableAndEveryChangeMovesTheVersion) {
    model.setWebSeat("Cy", true);
    model.itemPut("  Login page \n");
    model.played("Bob");
    model.cardsOpened();
    model.cardElected("Bob", "5");
    model.cardElected("Cy", "8");
    model.cardElected(" Bob ", " 3 ");  // the latest card of a name wins, in its first place

    // A page that arrives now, or reloads, draws exactly this.
    const TableSnapshot late = model.snapshot();
    EXPECT_EQ(late.phase, Phase::open);
    EXPECT_EQ(late.game, "Sprint");
    EXPECT_EQ(late.facilitator, "Ann");
    EXPECT_EQ(names(late), (std::vector<std::string>{"Ann", "Bob", "Cy"}));
    EXPECT_TRUE(late.seats[0].facilitator);
    EXPECT_FALSE(late.seats[1].web);
    EXPECT_TRUE(late.seats[2].web);
    EXPECT_EQ(late.played, 1u);
    ASSERT_TRUE(late.current);
    EXPECT_EQ(late.current->number, 1);
    EXPECT_EQ(late.current->title, "Login page");
    EXPECT_TRUE(late.current->opened);
    EXPECT_EQ(cardsOf(*late.current), (std::vector<std::string>{"Bob=3", "Cy=8"}));
    EXPECT_EQ(late.current->statistics.cards, (std::vector<std::string>{"3", "8"}));
    EXPECT_EQ(late.current->statistics.average, 5.5);
    EXPECT_EQ(model.snapshot(), late);

    // Events that change nothing leave the version alone; each change moves it on by one.
    model.played("Bob");
    model.played("Nobody");
    model.cardsOpened();
    model.cardElected("Cy", "8");
    model.setWebSeat("Cy", true);
    model.playerJoined("Bob");
    EXPECT_EQ(model.snapshot(), late);
    model.setWebSeat("Cy", false);
    EXPECT_EQ(model.snapshot().version, late.version + 1);
    EXPECT_FALSE(model.snapshot().seats[2].present);
}

TEST_F(TableModelTest, PlayedCountComesFromTheSeats) {
    model.played("Bob");  // before any item: nothing to play on
    EXPECT_EQ(model.snapshot().played, 0u);
    model.itemPut("One");
    EXPECT_FALSE(model.everyonePlayed());
    model.played("Bob");
    model.played("Cy");
    EXPECT_EQ(model.snapshot().played, 2u);
    EXPECT_FALSE(model.everyonePlayed());
    // The one still thinking leaves: everyone left has played.
    model.playerLeft("Ann ");  // not Ann's name: nobody leaves
    model.playerJoined("Dee");
    model.playerLeft("Dee");
    EXPECT_FALSE(model.everyonePlayed());
    model.played("Ann");
    EXPECT_TRUE(model.everyonePlayed());
    // A player who leaves takes its played flag along.
    model.playerLeft("Cy");
    EXPECT_EQ(model.snapshot().played, 2u);
    EXPECT_EQ(names(model.snapshot()), (std::vector<std::string>{"Ann", "Bob"}));
    EXPECT_TRUE(model.everyonePlayed());
    model.cardsOpened();
    EXPECT_FALSE(model.everyonePlayed());
    // A new item starts everybody thinking again.
    model.itemPut("Two");
    EXPECT_EQ(model.snapshot().played, 0u);
    EXPECT_FALSE(model.everyonePlayed());
}

TEST_F(TableModelTest, TheFacilitatorLeavingEndsTheGameUntilTheNextOne) {
    model.itemPut("One");
    model.cardsOpened();
    model.cardElected("Bob", "5");
    model.playerLeft("Ann");
    TableSnapshot ended = model.snapshot();
    EXPECT_EQ(ended.phase, Phase::ended);
    EXPECT_TRUE(ended.seats.empty());
    EXPECT_EQ(ended.played, 0u);
    ASSERT_TRUE(ended.current);  // what the game came to stays readable
    EXPECT_EQ(model.checkJoin("Eve"), JoinCheck::noGame);
    EXPECT_EQ(model.checkStart(), JoinCheck::ok);
    // Late events of the ended game change nothing.
    model.playerJoined("Eve");
    model.itemPut("Two");
    model.played("Bob");
    model.cardElected("Bob", "8");
    model.playerLeft("Bob");
    EXPECT_EQ(model.snapshot(), ended);

    model.gameOpened("Dee", "Next");
    const TableSnapshot next = model.snapshot();
    EXPECT_EQ(next.phase, Phase::open);
    EXPECT_EQ(next.game, "Next");
    EXPECT_EQ(names(next), (std::vector<std::string>{"Dee"}));
    EXPECT_FALSE(next.current);
    EXPECT_TRUE(next.items.empty());
}

TEST(TableModelJoinTest, StartAndJoinChecks) {
    TableModel model;
    EXPECT_EQ(model.checkStart(), JoinCheck::ok);
    EXPECT_EQ(model.checkJoin("Bob"), JoinCheck::noGame);
    model.gameOpened("Zo\u00EB", "Sprint");
    model.playerJoined("Bob");
    EXPECT_EQ(model.checkStart(), JoinCheck::gameOpen);
    const std::vector<std::pair<std::string, JoinCheck>> joins{
        {"bob", JoinCheck::nameTaken},
        {"BOB", JoinCheck::nameTaken},
        {"zoe\u0308", JoinCheck::nameTaken},  // canonically the same as the facilitator's name
        {"ZO\u00CB", JoinCheck::nameTaken},
        {"Bob ", JoinCheck::ok},  // names are not trimmed
        {"Cy", JoinCheck::ok},
    };
    for (const auto& [name, check] : joins) {
        EXPECT_EQ(model.checkJoin(name), check) << name;
    }
    model.playerJoined("Cy");
    model.playerJoined("Dee");
    model.playerJoined("Eve");
    EXPECT_EQ(model.checkJoin("Fay"), JoinCheck::full);
    EXPECT_EQ(model.checkJoin("bob"), JoinCheck::full);
    model.playerLeft("Cy");
    EXPECT_EQ(model.checkJoin("Fay"), JoinCheck::ok);
}

TEST_F(TableModelTest, ItemsEstimatesAndStoredDeals) {
    std::vector<std::pair<std::int64_t, std::string>> stored;
    model.setEstimateSink(
        [&](std::int64_t dealId, const std::string& value) { stored.emplace_back(dealId, value); });

    model.itemPut("  Story A ");
    model.cardElected("Bob", "5");
    EXPECT_FALSE(model.recordEstimate(1, "5"));  // cards not open yet
    model.cardsOpened();
    EXPECT_TRUE(model.recordEstimate(1, "5"));
    EXPECT_TRUE(stored.empty());  // the deal isn't stored yet
    model.dealStored("Story A", 11);
    EXPECT_EQ(stored, (std::vector<std::pair<std::int64_t, std::string>>{{11, "5"}}));

    model.itemPut("Story B");
    model.itemPut("Story A");            // the same title once more
    model.dealStored(" Story A\n", 13);  // the newest item of that title without a row id
    model.dealStored("Story B", 12);
    model.dealStored("Story C", 14);  // stored before its item arrived: it waits for it
    const TableSnapshot table = model.snapshot();
    ASSERT_EQ(table.items.size(), 2u);
    ASSERT_TRUE(table.current);
    EXPECT_EQ(table.items[0].number, 1);
    EXPECT_EQ(table.items[0].dealId, 11);
    EXPECT_EQ(table.items[0].estimate, "5");
    EXPECT_EQ(cardsOf(table.items[0]), (std::vector<std::string>{"Bob=5"}));
    EXPECT_EQ(table.items[1].dealId, 12);
    EXPECT_EQ(table.current->number, 3);
    EXPECT_EQ(table.current->dealId, 13);
    EXPECT_TRUE(table.current->cards.empty());
    EXPECT_EQ(table.version, model.snapshot().version);
    // Two items of one title both waiting get their deals in the order they were put up.
    model.itemPut("Story C");
    model.itemPut("Story D");
    model.itemPut("Story D");
    model.dealStored("Story D", 15);
    model.dealStored("Story D", 16);
    const TableSnapshot later = model.snapshot();
    ASSERT_EQ(later.items.size(), 5u);
    EXPECT_EQ(later.items[3].dealId, 14);
    EXPECT_EQ(later.items[4].dealId, 15);
    EXPECT_EQ(later.current->dealId, 16);

    EXPECT_FALSE(model.recordEstimate(2, "8"));  // never opened
    EXPECT_FALSE(model.recordEstimate(4, "8"));  // no such item
    EXPECT_FALSE(model.recordEstimate(1, "  "));
    EXPECT_TRUE(model.recordEstimate(1, "8"));  // an earlier item, already stored
    EXPECT_EQ(stored.back(), (std::pair<std::int64_t, std::string>{11, "8"}));
    EXPECT_EQ(stored.size(), 2u);

    model.setAgenda({" X ", "", "Y"});
    EXPECT_EQ(model.snapshot().agenda, (std::vector<std::string>{"X", "Y"}));
    EXPECT_EQ(model.takeNextAgendaItem(), "X");
    EXPECT_EQ(model.takeNextAgendaItem(), "Y");
    EXPECT_EQ(model.takeNextAgendaItem(), std::nullopt);

    const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    model.startCountdown(30);
    const auto endsAt = model.snapshot().countdownEndsAtMs;
    ASSERT_TRUE(endsAt);
    EXPECT_GE(*endsAt, now + 30000);
    EXPECT_LT(*endsAt, now + 35000);
    model.cardsOpened();  // the cards open: the countdown is over
    EXPECT_FALSE(model.snapshot().countdownEndsAtMs);
}

TEST_F(TableModelTest, ListenersRunAfterTheChangeWithoutTheLock) {
    std::vector<std::uint64_t> seen;
    int selfRemoving = 0;
    // Reading the model from a listener must not wait on the model's own lock.
    const int reader = model.subscribe([&] {
        seen.push_back(model.snapshot().version);
        (void)model.everyonePlayed();
        (void)model.checkJoin("Eve");
    });
    int id = 0;
    id = model.subscribe([&] {
        ++selfRemoving;
        model.unsubscribe(id);
    });
    const std::uint64_t before = model.snapshot().version;
    model.itemPut("One");
    model.played("Bob");
    model.played("Bob");  // no change, no call
    EXPECT_EQ(seen, (std::vector<std::uint64_t>{before + 1, before + 2}));
    EXPECT_EQ(selfRemoving, 1);
    model.unsubscribe(reader);
    model.played("Cy");
    EXPECT_EQ(seen.size(), 2u);
    // Listeners stay over a reset.
    const int again = model.subscribe([&] { seen.push_back(0); });
    model.reset();
    EXPECT_EQ(seen.size(), 3u);
    EXPECT_EQ(model.snapshot().phase, Phase::closed);
    model.unsubscribe(again);
}

// Several game threads and page threads at once: the table stays consistent, every change is
// announced once, and a listener that was unsubscribed is never running afterwards.
TEST(TableModelConcurrencyTest, ConcurrentEventsKeepTheTableConsistent) {
    TableModel model;
    model.gameOpened("Ann", "Sprint");
    const std::vector<std::string> players{"P0", "P1", "P2", "P3"};
    for (const std::string& name : players) {
        model.playerJoined(name);
    }
    model.itemPut("Item");
    std::atomic<int> calls{0};
    std::atomic<bool> broken{false};
    model.subscribe([&] {
        ++calls;
        const TableSnapshot table = model.snapshot();
        const auto played = std::count_if(table.seats.begin(), table.seats.end(),
                                          [](const TableSeat& seat) { return seat.played; });
        broken = broken || static_cast<std::size_t>(played) != table.played ||
                 table.current->statistics.count != table.current->cards.size();
    });
    auto gone = std::make_shared<std::atomic<bool>>(false);
    const int watcher = model.subscribe([gone, &broken] {
        broken = broken || *gone;
        std::this_thread::yield();
    });
    const std::uint64_t start = model.snapshot().version;

    constexpr int kRounds = 300;
    std::vector<std::thread> threads;
    for (const std::string& name : players) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                model.played(name);
                model.cardElected(name, std::to_string(i % 7));
                model.setWebSeat(name, i % 2 == 0);
            }
        });
    }
    threads.emplace_back([&] {
        model.unsubscribe(watcher);
        *gone = true;
    });
    for (std::thread& thread : threads) {
        thread.join();
    }
    const TableSnapshot table = model.snapshot();
    EXPECT_FALSE(broken);
    EXPECT_EQ(table.version - start, static_cast<std::uint64_t>(calls.load()));
    EXPECT_EQ(table.played, players.size());
    ASSERT_EQ(table.current->cards.size(), players.size());
    for (const TableCard& card : table.current->cards) {
        EXPECT_EQ(card.card, std::to_string((kRounds - 1) % 7)) << card.name;
    }
}

// The table and the stored history compute a round's statistics by the same rules.
class TableStatisticsAgreementTest : public testing::StorageFixture {};

TEST_F(TableStatisticsAgreementTest, TableAndExportAgreeOnEveryRound) {
    const std::vector<std::vector<std::string>> rounds{
        {"1/2", "\u00BD", "0,5"}, {"5"},       {"5", "5", "?"},   {"M", "M"},
        {"?", "coffee"},          {"3", "13"}, {"0.5", "8", "20"}};
    auto game = Game::make("Agreement", "Ann");
    ASSERT_TRUE(game && game->save());
    TableModel model;
    model.gameOpened("Ann", "Agreement");
    const auto number = [](const std::optional<double>& v) {
        return v ? nlohmann::json(*v) : nlohmann::json(nullptr);
    };
    nlohmann::json onTable = nlohmann::json::array();  // newest first, as exported
    for (const auto& cards : rounds) {
        const std::string title = "Round " + std::to_string(onTable.size());
        model.itemPut(title);
        model.cardsOpened();
        auto deal = Deal::make(game->id, title);
        ASSERT_TRUE(deal && deal->save());
        for (std::size_t p = 0; p < cards.size(); ++p) {
            model.cardElected("P" + std::to_string(p), cards[p]);
            ASSERT_TRUE(Election::make(deal->id, "P" + std::to_string(p), cards[p])->save());
        }
        const RoundStatistics s = model.snapshot().current->statistics;
        onTable.insert(onTable.begin(), nlohmann::json{{"count", s.count},
                                                       {"numericCount", s.numericCount},
                                                       {"consensus", s.consensus},
                                                       {"average", number(s.average)},
                                                       {"median", number(s.median)},
                                                       {"minimum", number(s.minimum)},
                                                       {"maximum", number(s.maximum)}});
    }
    sqlm().drain();
    const auto exported = HistoryExport::fromDatabase(path(), HistoryExport::Format::json, {});
    ASSERT_TRUE(exported.ok()) << exported.error;
    const auto deals = nlohmann::json::parse(*exported.text)["games"][0]["deals"];
    ASSERT_EQ(deals.size(), rounds.size());
    for (std::size_t r = 0; r < rounds.size(); ++r) {
        for (const auto& [key, value] : onTable[r].items()) {
            EXPECT_EQ(deals[r]["statistics"][key], value) << key << " of " << deals[r].dump();
        }
    }
    // The rounds the team must see alike: a single card is no consensus; halves agree.
    EXPECT_EQ(onTable[6]["consensus"], true);
    EXPECT_EQ(onTable[5]["consensus"], false);
}

}  // namespace
}  // namespace pointlane
