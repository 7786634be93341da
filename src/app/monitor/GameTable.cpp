#include "monitor/GameTable.h"

#include <QDateTime>
#include <QPainter>

#include "monitor/DealTable.h"
#include "monitor/OneColumnTableView.h"

namespace pointlane {

GameTable::GameTable(QWidget* parent)
    : OneColumnTable(parent),
      nameSelectedAttr(TextAttributes::system(16, true, Qt::white)),
      nameNormalAttr(TextAttributes::system(16, true, kLightGrey)),
      dateSelectedAttr(TextAttributes::system(12, true, Qt::white)),
      dateNormalAttr(TextAttributes::system(12, true, kLightGrey)),
      adminSelectedAttr(TextAttributes::system(12, true, Qt::white)),
      adminNormalAttr(TextAttributes::system(12, true, kLightGrey)) {
    mutex.sync([this] { data = Game::games(); });
    tableView->dataSource = this;
    tableView->tableViewDelegate = this;
    tableView->reloadData();
    initialSelect();
    registerObservers();
}

GameTable::~GameTable() {
    removeObservers();
}

int GameTable::numberOfRows() {
    return countRows(mutex, data);
}

std::any GameTable::objectValue(int row) {
    return objectAt(mutex, data, row);
}

std::shared_ptr<Game> GameTable::gameAt(int row) {
    return recordAt(mutex, data, row);
}

OneColumnTableCell* GameTable::cellFor(int row) {
    return OneColumnTable::cellFor(row, this);
}

void GameTable::deselectAll() {
    unmarkAllCells();
}

void GameTable::changeSelection(int row, bool state) {
    deselectAll();
    markCell(row, state);
    // The deal list follows the row even when it is being unmarked: the selection always ends
    // with the newly chosen row, so the deals shown are the chosen game's.
    if (auto game = gameAt(row)) {
        if (dealTable) {
            dealTable->dealsFor(game->id);
        }
    } else if (dealTable) {
        dealTable->dealsFor(std::nullopt);
    }
}

void GameTable::initialSelect() {
    deselectAll();
    changeSelection(0, true);
}

void GameTable::registerObservers() {
    registerEvent(Event::gameTableDidChange, [this] {
        mutex.sync([this] { data = Game::games(); });
        onMainQueue([this] {
            tableView->reloadData();
            initialSelect();
        });
    });
}

void GameTable::draw(OneColumnTableCell& cell, QPainter& painter) {
    const auto* game = std::any_cast<std::shared_ptr<Game>>(&cell.objectValue);
    if (game == nullptr || *game == nullptr) {
        return;
    }
    const bool selected = cell.isSelected();
    const double width = cell.bounds.width();
    const double height = cell.bounds.height();

    const TextAttributes& nameAttr = selected ? nameSelectedAttr : nameNormalAttr;
    nameAttr.draw(painter, QString::fromStdString((*game)->name), QPointF(15, 10));

    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>((*game)->date.time_since_epoch()).count();
    const QString date = QDateTime::fromSecsSinceEpoch(seconds, Qt::LocalTime)
                             .toString(QStringLiteral("yyyy-MM-dd"));
    const TextAttributes& dateAttr = selected ? dateSelectedAttr : dateNormalAttr;
    const QSizeF dateSize = dateAttr.size(date);
    dateAttr.draw(painter, date, QPointF(15, height - dateSize.height() - 5));

    const QString admin = QString::fromStdString((*game)->admin);
    const TextAttributes& adminAttr = selected ? adminSelectedAttr : adminNormalAttr;
    const QSizeF adminSize = adminAttr.size(admin);
    adminAttr.draw(painter, admin,
                   QPointF(width - adminSize.width() - 15, height - adminSize.height() - 5));
}

}  // namespace pointlane
