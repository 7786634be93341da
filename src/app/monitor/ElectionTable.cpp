#include "monitor/ElectionTable.h"

#include <QPainter>

#include "monitor/OneColumnTableView.h"

namespace pointlane {

ElectionTable::ElectionTable(QWidget* parent)
    : OneColumnTable(parent),
      nameSelectedAttr(TextAttributes::system(16, true, Qt::white)),
      nameNormalAttr(TextAttributes::system(16, true, kLightGrey)),
      symbolSelectedAttr(TextAttributes::system(28, true, Qt::white)),
      symbolNormalAttr(TextAttributes::system(28, true, kLightGrey)) {
    tableView->dataSource = this;
    tableView->tableViewDelegate = this;
    tableView->reloadData();
    deselectAll();
    changeSelection(0, true);
    registerObservers();
}

ElectionTable::~ElectionTable() {
    removeObservers();
}

void ElectionTable::electionsFor(std::optional<std::int64_t> deal) {
    mutex.sync([&] {
        dealId_ = deal;
        data = deal ? Election::electionsFor(*deal) : std::nullopt;
    });
    refreshOnMainQueue();
}

std::optional<std::int64_t> ElectionTable::dealId() {
    std::optional<std::int64_t> deal;
    mutex.sync([&] { deal = dealId_; });
    return deal;
}

void ElectionTable::refreshOnMainQueue() {
    onMainQueue([this] {
        tableView->reloadData();
        deselectAll();
        changeSelection(0, true);
    });
}

void ElectionTable::registerObservers() {
    registerEvent(Event::electionTableDidChange, [this] {
        // Read dealId and the rows in one critical section (see DealTable).
        mutex.sync([this] { data = dealId_ ? Election::electionsFor(*dealId_) : std::nullopt; });
        refreshOnMainQueue();
    });
}

int ElectionTable::numberOfRows() {
    return countRows(mutex, data);
}

std::any ElectionTable::objectValue(int row) {
    return objectAt(mutex, data, row);
}

std::shared_ptr<Election> ElectionTable::electionAt(int row) {
    return recordAt(mutex, data, row);
}

OneColumnTableCell* ElectionTable::cellFor(int row) {
    return OneColumnTable::cellFor(row, this);
}

void ElectionTable::deselectAll() {
    unmarkAllCells();
}

void ElectionTable::changeSelection(int row, bool state) {
    deselectAll();
    markCell(row, state);
}

void ElectionTable::draw(OneColumnTableCell& cell, QPainter& painter) {
    const auto* election = std::any_cast<std::shared_ptr<Election>>(&cell.objectValue);
    if (election == nullptr || *election == nullptr) {
        return;
    }
    const bool selected = cell.isSelected();
    const double width = cell.bounds.width();
    const double height = cell.bounds.height();

    const TextAttributes& nameAttr = selected ? nameSelectedAttr : nameNormalAttr;
    const QString name = QString::fromStdString((*election)->playerName);
    nameAttr.draw(painter, name, QPointF(15, (height - nameAttr.size(name).height()) * 0.5));

    const TextAttributes& symbolAttr = selected ? symbolSelectedAttr : symbolNormalAttr;
    const QString symbol = QString::fromStdString((*election)->symbol);
    const QSizeF symbolSize = symbolAttr.size(symbol);
    symbolAttr.draw(painter, symbol,
                    QPointF(width - symbolSize.width() - 15, (height - symbolSize.height()) * 0.5));
}

}  // namespace pointlane
