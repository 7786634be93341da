#include "monitor/PlayersTable.h"

#include <QPainter>

#include "monitor/OneColumnTableView.h"

namespace pointlane {

PlayersTable::PlayersTable(QWidget* parent)
    : OneColumnTable(parent),
      selectedAttr1(TextAttributes::system(26, true, Qt::white)),
      selectedAttr2(TextAttributes::system(14, false, Qt::white)),
      normalAttr1(TextAttributes::system(26, true, kLightGrey)),
      normalAttr2(TextAttributes::system(14, false, kLightGrey)) {
    mutex.sync([this] { data = PlayerInfo::all(); });
    tableView->dataSource = this;
    tableView->tableViewDelegate = this;
    tableView->reloadData();
    registerObservers();
}

PlayersTable::~PlayersTable() {
    removeObservers();
}

void PlayersTable::registerObservers() {
    registerEvent(Event::playerTableDidChange, [this] {
        mutex.sync([this] { data = PlayerInfo::all(); });
        onMainQueue([this] { tableView->reloadData(); });
    });
}

int PlayersTable::numberOfRows() {
    return countRows(mutex, data);
}

std::any PlayersTable::objectValue(int row) {
    return objectAt(mutex, data, row);
}

std::shared_ptr<PlayerInfo> PlayersTable::playerAt(int row) {
    return recordAt(mutex, data, row);
}

OneColumnTableCell* PlayersTable::cellFor(int row) {
    return OneColumnTable::cellFor(row, this);
}

void PlayersTable::deselectAll() {
    unmarkAllCells();
}

void PlayersTable::changeSelection(int row, bool state) {
    markCell(row, state);
}

void PlayersTable::draw(OneColumnTableCell& cell, QPainter& painter) {
    const auto* player = std::any_cast<std::shared_ptr<PlayerInfo>>(&cell.objectValue);
    if (player == nullptr || *player == nullptr) {
        return;
    }
    const bool selected = cell.isSelected();
    const TextAttributes& attr1 = selected ? selectedAttr1 : normalAttr1;
    const TextAttributes& attr2 = selected ? selectedAttr2 : normalAttr2;

    const QString name = QString::fromStdString((*player)->name);
    attr1.draw(painter, name,
               QPointF(15, (cell.bounds.height() - attr1.size(name).height()) * 0.5));

    const QString address =
        QStringLiteral("Address: ") + QString::fromStdString((*player)->address);
    attr2.draw(
        painter, address,
        QPointF(cell.bounds.width() - attr2.size(address).width() - 15, cell.bounds.y() + 5));
}

}  // namespace pointlane
