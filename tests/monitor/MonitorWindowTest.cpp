#include <QAbstractButton>
#include <QAction>
#include <QDir>
#include <QTest>
#include <cmath>
#include <memory>

#include "MonitorFixture.h"
#include "monitor/DataWindowController.h"
#include "monitor/DataWindowControllerDelegate.h"
#include "monitor/DealTable.h"
#include "monitor/ElectionTable.h"
#include "monitor/GameTable.h"
#include "monitor/HistoryView.h"
#include "monitor/OneColumnTableView.h"
#include "monitor/PlayersTable.h"
#include "monitor/SegmentedControl.h"
#include "monitor/StackedView.h"
#include "monitor/StatusItem.h"
#include "storage/Deal.h"
#include "storage/Election.h"
#include "storage/Game.h"
#include "storage/PlayerInfo.h"

namespace pointlane {
namespace {

using testkit::MonitorFixture;

class CountingDelegate final : public DataWindowControllerDelegate {
  public:
    void windowClose() override { ++closes; }
    int closes = 0;
};

class MonitorWindowTest : public MonitorFixture {};

TEST_F(MonitorWindowTest, LoadsWithTitleAndPlayersPageFirstSwitchesPagesAndReportsClosing) {
    DataWindowController controller;
    EXPECT_TRUE(controller.stackedView.isNull()) << "nothing is built before loading";
    controller.loadWindow();
    controller.show();
    EXPECT_EQ(controller.windowTitle(), QStringLiteral("Pointlane v.1.0 Base"));
    ASSERT_TRUE(controller.stackedView);
    StackedView& stacked = *controller.stackedView;
    EXPECT_EQ(stacked.index, StackedViewIndex::players);
    EXPECT_TRUE(stacked.playersTable->isVisible());
    EXPECT_FALSE(stacked.historyView->isVisible());

    SegmentedControl& control = *controller.pageControl;
    ASSERT_EQ(control.segmentCount(), 2);
    EXPECT_EQ(control.segment(0)->text(), QStringLiteral("Players"));
    EXPECT_EQ(control.segment(1)->text(), QStringLiteral("History"));

    QTest::mouseClick(control.segment(1), Qt::LeftButton);
    EXPECT_EQ(stacked.index, StackedViewIndex::history);
    EXPECT_FALSE(stacked.playersTable->isVisible());
    EXPECT_TRUE(stacked.historyView->isVisible());
    EXPECT_TRUE(stacked.historyView->gameTable->isVisible());
    EXPECT_TRUE(stacked.historyView->electionTable->isVisible());

    // A sender of another kind changes nothing.
    QObject stranger;
    control.setSelectedSegment(0);
    controller.viewSelectionDidChange(&stranger);
    EXPECT_EQ(stacked.index, StackedViewIndex::history);

    QTest::mouseClick(control.segment(0), Qt::LeftButton);
    EXPECT_EQ(stacked.index, StackedViewIndex::players);
    EXPECT_TRUE(stacked.playersTable->isVisible());
    EXPECT_FALSE(stacked.historyView->isVisible());

    // Shown by the platform without an explicit load: built, titled, and tells its delegate
    // (if any) when it closes.
    CountingDelegate delegate;
    DataWindowController shown;
    shown.delegate = &delegate;
    shown.show();
    EXPECT_EQ(shown.windowTitle(), QStringLiteral("Pointlane v.1.0 Base"));
    EXPECT_TRUE(shown.stackedView);
    shown.close();
    EXPECT_EQ(delegate.closes, 1);
    shown.delegate = nullptr;
    shown.show();
    shown.close();
    EXPECT_EQ(delegate.closes, 1);
}

TEST_F(MonitorWindowTest, ResizingKeepsPagesFillingAndThreeEqualColumns) {
    DataWindowController controller;
    controller.loadWindow();
    controller.show();
    controller.stackedView->changeView(StackedViewIndex::history);
    for (const QSize size : {QSize(900, 560), QSize(1000, 700), QSize(601, 400)}) {
        controller.resize(size);
        QCoreApplication::processEvents();
        StackedView& stacked = *controller.stackedView;
        EXPECT_EQ(stacked.playersTable->geometry(), stacked.rect());
        EXPECT_EQ(stacked.historyView->geometry(), stacked.rect());
        HistoryView& history = *stacked.historyView;
        const int width = history.width();
        const QRect game = history.gameTable->geometry();
        const QRect deal = history.dealTable->geometry();
        const QRect election = history.electionTable->geometry();
        EXPECT_EQ(game.left(), 0);
        EXPECT_EQ(deal.left(), game.left() + game.width()) << "no seam between columns";
        EXPECT_LE(election.left(), deal.left() + deal.width());
        EXPECT_EQ(election.left() + election.width(), width);
        for (const QRect& column : {game, deal, election}) {
            EXPECT_NEAR(column.width(), width / 3.0, 1.0);
            EXPECT_EQ(column.height(), history.height());
        }
    }
}

TEST(HistoryViewGeometryTest, LastColumnIsATenthWiderAndATenthToTheLeft) {
    const auto frames = HistoryView::columnFrames(QSizeF(1000, 300));
    const double third = 1000.0 / 3.0;
    EXPECT_EQ(frames[0], QRectF(0, 0, third, 300));
    EXPECT_EQ(frames[1], QRectF(third, 0, third, 300));
    EXPECT_DOUBLE_EQ(frames[2].x(), 2 * third - 0.1);
    EXPECT_DOUBLE_EQ(frames[2].width(), third + 0.1);
    EXPECT_DOUBLE_EQ(frames[2].right(), 1000.0);
    EXPECT_DOUBLE_EQ(frames[2].height(), 300);
}

TEST(StatusItemTest, ToolTipIconAndMenuCallBack) {
    int shows = 0;
    int quits = 0;
    StatusItem item([&] { ++shows; }, [&] { ++quits; });
    item.setToolTip(QString::fromLatin1(StatusItem::kToolTip));
    EXPECT_EQ(item.trayIcon().toolTip(), QStringLiteral("Pointlane Base"));

    const QIcon icon = StatusItem::templateIcon();
    ASSERT_FALSE(icon.isNull()) << "the topMenuIcon resource is compiled in";
    EXPECT_TRUE(icon.isMask());

    const auto actions = item.menu().actions();
    ASSERT_EQ(actions.size(), 2);
    EXPECT_EQ(actions[0]->text(), QStringLiteral("Show monitor"));
    EXPECT_EQ(actions[1]->text(), QStringLiteral("Quit Pointlane"));
    actions[0]->trigger();
    actions[0]->trigger();
    EXPECT_EQ(shows, 2);
    EXPECT_EQ(quits, 0);
    actions[1]->trigger();
    EXPECT_EQ(quits, 1);

    // Without a status area (offscreen) show() says so and answers false, and on we go.
    testing::internal::CaptureStdout();
    EXPECT_EQ(item.show(), QSystemTrayIcon::isSystemTrayAvailable());
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(item.trayIcon().contextMenu(), &item.menu());
    EXPECT_TRUE(item.trayIcon().icon().isMask());
}

// Renders both pages with sample data, Polish names included, for a look at the result.
TEST_F(MonitorWindowTest, RendersBothPagesWithSampleData) {
    for (const auto& [name, address] :
         {std::pair{"Łukasz", "192.168.1.21"}, std::pair{"Żaneta", "192.168.1.34"},
          std::pair{"Anna", "192.168.1.12"},
          std::pair{"Grzegorz Brzęczyszczykiewicz", "10.0.0.5"}}) {
        auto player = PlayerInfo::make(std::string(name), std::string(address));
        ASSERT_TRUE(player && player->save());
    }
    auto older = Game::make("Planowanie sprintu 41", "Anna");
    auto game = Game::make("Gra o świętą ćmę", "Łukasz");
    ASSERT_TRUE(older && older->save() && game && game->save());
    std::int64_t lastDeal = 0;
    for (const char* title : {"Logowanie przez SSO", "Wyszukiwarka źródeł", "Płatności kartą"}) {
        auto deal = Deal::make(game->id, title);
        ASSERT_TRUE(deal && deal->save());
        lastDeal = deal->id;
    }
    for (const auto& [player, symbol] : {std::pair{"Anna", "5"}, std::pair{"Żaneta", "8"},
                                         std::pair{"Łukasz", "13"}, std::pair{"Grzegorz", "?"}}) {
        auto election = Election::make(lastDeal, std::string(player), std::string(symbol));
        ASSERT_TRUE(election && election->save());
    }

    DataWindowController controller;
    controller.loadWindow();
    controller.resize(900, 400);
    controller.show();
    settle();
    // Mark a player the way a click does.
    PlayersTable& players = *controller.stackedView->playersTable;
    players.tableView->selectRow(1);
    settle();
    const QString pictures = QStringLiteral(POINTLANE_BINARY_DIR);
    ASSERT_TRUE(controller.grab().save(pictures + QStringLiteral("/monitor-players.png")));

    QTest::mouseClick(controller.pageControl->segment(1), Qt::LeftButton);
    HistoryView& history = *controller.stackedView->historyView;
    history.gameTable->tableView->selectRow(0);
    settle();
    ASSERT_EQ(history.dealTable->tableView->numberOfRows(), 3);
    ASSERT_EQ(history.electionTable->tableView->numberOfRows(), 4);
    ASSERT_TRUE(controller.grab().save(pictures + QStringLiteral("/monitor-history.png")));
}

}  // namespace
}  // namespace pointlane
