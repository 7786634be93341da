#include <gtest/gtest.h>

#include <QHeaderView>
#include <QImage>
#include <QPainter>
#include <QTest>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "monitor/OneColumnTableCell.h"
#include "monitor/OneColumnTableCellDelegate.h"
#include "monitor/OneColumnTableDataSource.h"
#include "monitor/OneColumnTableRow.h"
#include "monitor/OneColumnTableView.h"
#include "monitor/OneColumnTableViewDelegate.h"

namespace pointlane {
namespace {

// An owner that records what the table tells it and keeps its rows as plain texts.
class RecordingOwner final : public OneColumnTableViewDelegate,
                             public OneColumnTableDataSource,
                             public OneColumnTableCellDelegate {
  public:
    explicit RecordingOwner(OneColumnTableView* view) : view_(view) {}

    int numberOfRows() override { return static_cast<int>(rows.size()); }
    std::any objectValue(int row) override {
        if (row < 0 || row >= numberOfRows()) {
            return {};
        }
        return rows[static_cast<std::size_t>(row)];
    }
    OneColumnTableCell* cellFor(int row) override {
        auto& cell = cells[row];
        if (!cell) {
            cell = std::make_unique<OneColumnTableCell>(view_, row);
            cell->delegate = this;
        }
        return cell.get();
    }
    void changeSelection(int row, bool state) override {
        calls.push_back("change(" + std::to_string(row) + "," + (state ? "true" : "false") + ")");
    }
    void deselectAll() override { calls.push_back("deselectAll"); }
    void draw(OneColumnTableCell& cell, QPainter&) override {
        if (const auto* text = std::any_cast<std::string>(&cell.objectValue)) {
            drawn.push_back(*text);
        }
    }

    std::vector<std::string> rows;
    std::vector<std::string> calls;
    std::vector<std::string> drawn;
    std::map<int, std::unique_ptr<OneColumnTableCell>> cells;

  private:
    OneColumnTableView* view_;
};

class OneColumnTableTest : public ::testing::Test {
  protected:
    void SetUp() override {
        view = std::make_unique<OneColumnTableView>();
        owner = std::make_unique<RecordingOwner>(view.get());
        owner->rows = {"first", "second", "third"};
        view->dataSource = owner.get();
        view->tableViewDelegate = owner.get();
        view->resize(300, 400);
        view->show();
        view->reloadData();
    }

    void clickRow(int row, Qt::KeyboardModifiers modifiers = {}) {
        const QRect rect = view->visualRect(view->model()->index(row, 0));
        QTest::mouseClick(view->viewport(), Qt::LeftButton, modifiers, rect.center());
    }

    QColor pixelAt(int x, int y) { return view->grab().toImage().pixelColor(x, y); }

    std::unique_ptr<OneColumnTableView> view;
    std::unique_ptr<RecordingOwner> owner;
};

TEST_F(OneColumnTableTest, SelectionIsAskedOfTheOwnerOldRowFirst) {
    EXPECT_FALSE(view->shouldSelectRow(-1));
    EXPECT_TRUE(owner->calls.empty()) << "a refused -1 tells nothing";

    clickRow(1);
    EXPECT_EQ(view->selectedRow(), 1);
    EXPECT_EQ(owner->calls, (std::vector<std::string>{"change(-1,false)", "change(1,true)"}));

    owner->calls.clear();
    clickRow(2);
    EXPECT_EQ(owner->calls, (std::vector<std::string>{"change(1,false)", "change(2,true)"}));

    // Choosing the row that is already selected unmarks and marks it again.
    owner->calls.clear();
    clickRow(2);
    EXPECT_EQ(view->selectedRow(), 2);
    EXPECT_EQ(owner->calls, (std::vector<std::string>{"change(2,false)", "change(2,true)"}));

    owner->calls.clear();
    EXPECT_TRUE(view->shouldSelectRow(0));
    EXPECT_EQ(owner->calls, (std::vector<std::string>{"change(2,false)", "change(0,true)"}));
}

TEST_F(OneColumnTableTest, EmptyingTheSelectionUnmarksEverythingOnce) {
    clickRow(0);
    owner->calls.clear();
    view->clearSelection();
    EXPECT_EQ(view->selectedRow(), -1);
    EXPECT_EQ(owner->calls, (std::vector<std::string>{"deselectAll"}));

    // A reload that takes the selected row away empties the selection as well ...
    clickRow(2);
    owner->calls.clear();
    owner->rows = {"only"};
    view->reloadData();
    EXPECT_EQ(view->selectedRow(), -1);
    EXPECT_EQ(owner->calls, (std::vector<std::string>{"deselectAll"}));

    // ... while one that keeps it keeps the selection and tells nothing.
    owner->rows = {"a", "b", "c"};
    view->reloadData();
    clickRow(1);
    owner->calls.clear();
    owner->rows = {"a", "b", "c", "d"};
    view->reloadData();
    EXPECT_EQ(view->selectedRow(), 1);
    EXPECT_TRUE(owner->calls.empty());
}

TEST_F(OneColumnTableTest, ReloadCountsRowsAndCellsDrawTheirRecords) {
    EXPECT_EQ(view->numberOfRows(), 3);
    EXPECT_EQ(owner->cells.size(), 3u) << "every row's cell is made at the reload";
    EXPECT_EQ(view->rowHeight(0), 55);
    EXPECT_FALSE(view->horizontalHeader()->isVisible());
    EXPECT_EQ(view->model()->headerData(0, Qt::Horizontal).toString(), QStringLiteral("data"));

    owner->drawn.clear();
    view->grab();
    EXPECT_EQ(owner->drawn, (std::vector<std::string>{"first", "second", "third"}));

    // Rows are counted at reloads only: data that shrank meanwhile draws nothing for the
    // missing rows and asks no cell out of range.
    owner->rows = {"first"};
    owner->drawn.clear();
    view->grab();
    EXPECT_EQ(owner->drawn, (std::vector<std::string>{"first"}));
}

TEST_F(OneColumnTableTest, WithoutOwnerNoCellsAreShownAndRowsStillSelect) {
    view->tableViewDelegate = nullptr;
    owner->drawn.clear();
    view->grab();
    EXPECT_TRUE(owner->drawn.empty());
    clickRow(1);
    EXPECT_EQ(view->selectedRow(), 1);
    EXPECT_TRUE(owner->calls.empty());
}

TEST_F(OneColumnTableTest, CardsAreGreyAndSelectedOnesBrighterWithAWhiteOutline) {
    clickRow(1);
    const int w = view->viewport()->width();
    // Row 0 unselected: background 0.25 outside the card, fill 0.25, outline 0.65.
    EXPECT_EQ(pixelAt(1, 27), QColor(64, 64, 64));
    EXPECT_EQ(pixelAt(w / 2, 27), QColor(64, 64, 64));
    const QColor outline = pixelAt(w / 2, 2);
    EXPECT_EQ(outline, QColor(166, 166, 166)) << "unselected outline is light grey";
    EXPECT_GT(outline.red(), 100);
    // Row 1 selected: fill 0.55, outline white.
    EXPECT_EQ(pixelAt(w / 2, 55 + 27), QColor(140, 140, 140));
    EXPECT_EQ(pixelAt(w / 2, 55 + 2), QColor(255, 255, 255));
    EXPECT_EQ(pixelAt(1, 55 + 27), QColor(64, 64, 64));

    EXPECT_EQ(OneColumnTableRow::selectedStrokeColor(), QColor::fromRgbF(1, 1, 1));
    EXPECT_EQ(OneColumnTableRow::selectedFillColor(), QColor::fromRgbF(0.55f, 0.55f, 0.55f));
    EXPECT_EQ(OneColumnTableRow::strokeColor(), QColor::fromRgbF(0.65f, 0.65f, 0.65f));
    EXPECT_EQ(OneColumnTableRow::fillColor(), QColor::fromRgbF(0.25f, 0.25f, 0.25f));
    EXPECT_EQ(OneColumnTableRow(QRectF(0, 0, 100, 55), false).cardRect(), QRectF(2.5, 2.5, 95, 50));
}

}  // namespace
}  // namespace pointlane
