#include <atomic>
#include <string>
#include <thread>

#include "MonitorFixture.h"
#include "monitor/DataWindowController.h"
#include "monitor/DealTable.h"
#include "monitor/ElectionTable.h"
#include "monitor/GameTable.h"
#include "monitor/HistoryView.h"
#include "monitor/OneColumnTableView.h"
#include "monitor/StackedView.h"
#include "storage/Deal.h"
#include "storage/Election.h"
#include "storage/Game.h"
#include "storage/PlayerInfo.h"
#include "support/Event.h"

namespace pointlane {
namespace {

using testkit::MonitorFixture;

class MonitorWindowConcurrencyTest : public MonitorFixture {};

// The window is opened and closed over and over while the database queue stores deals and
// elections and announces them: the lists must never be touched after they are gone.
TEST_F(MonitorWindowConcurrencyTest, ClosingTheWindowWhileRecordsAreStoredIsSafe) {
    constexpr int kRecords = 1000;
    constexpr int kRounds = 20;
    auto game = Game::make("Gra o świętą ćmę", "Łukasz");
    ASSERT_TRUE(game && game->save());
    const std::int64_t gameId = game->id;

    // The writer stores one batch per opening of the window, and the window closes halfway
    // through each batch, so closing always races with stores and announcements.
    constexpr int kBatch = kRecords / kRounds;
    std::atomic<int> stored{0};
    std::atomic<int> opened{0};
    std::thread writer([&] {
        for (int batch = 0; batch < kRounds; ++batch) {
            if (!testkit::waitUntil([&] { return opened.load() > batch; })) {
                return;
            }
            for (int i = batch * kBatch; i < (batch + 1) * kBatch; ++i) {
                sqlm().async([&stored, gameId, i] {
                    auto deal = Deal::make(gameId, "Zadanie " + std::to_string(i));
                    if (deal && deal->save()) {
                        post(Event::dealTableDidChange);
                    }
                    auto election = Election::make(deal ? deal->id : 0, std::string("Żaneta"),
                                                   std::to_string(i % 13));
                    if (election && election->save()) {
                        post(Event::electionTableDidChange);
                    }
                    if (i % 25 == 0) {
                        auto player =
                            PlayerInfo::make("Gracz " + std::to_string(i), std::string("10.0.0.1"));
                        if (player && player->save()) {
                            post(Event::playerTableDidChange);
                        }
                        post(Event::gameTableDidChange);
                    }
                    stored.fetch_add(1);
                });
            }
        }
    });

    for (int round = 0; round < kRounds; ++round) {
        auto* controller = new DataWindowController;
        controller->loadWindow();
        controller->show();
        controller->stackedView->changeView(round % 2 == 0 ? StackedViewIndex::history
                                                           : StackedViewIndex::players);
        // Follow the game, so the deal and election lists re-read on every announcement.
        controller->stackedView->historyView->gameTable->tableView->selectRow(0);
        opened.store(round + 1);
        EXPECT_TRUE(pumpUntil([&] { return stored.load() >= round * kBatch + kBatch / 2; }));
        controller->close();
        delete controller;  // while the queue goes on storing and announcing
    }
    writer.join();
    settle();
    EXPECT_EQ(stored.load(), kRecords);

    // Afterwards a fresh window shows everything that was stored.
    DataWindowController controller;
    controller.loadWindow();
    controller.show();
    HistoryView& history = *controller.stackedView->historyView;
    history.gameTable->tableView->selectRow(0);
    settle();
    EXPECT_EQ(history.dealTable->tableView->numberOfRows(), kRecords);
    EXPECT_EQ(history.electionTable->tableView->numberOfRows(), 1);
}

}  // namespace
}  // namespace pointlane
