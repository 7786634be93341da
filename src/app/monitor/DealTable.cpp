#include "monitor/DealTable.h"

#include <QPainter>

#include "monitor/ElectionTable.h"
#include "monitor/OneColumnTableView.h"

namespace pointlane {

DealTable::DealTable(QWidget* parent)
    : OneColumnTable(parent),
      selectedAttr(TextAttributes::system(18, true, Qt::white)),
      normalAttr(TextAttributes::system(18, true, kLightGrey)) {
    tableView->dataSource = this;
    tableView->tableViewDelegate = this;
    tableView->reloadData();
    deselectAll();
    changeSelection(0, true);
    registerObservers();
}

DealTable::~DealTable() {
    removeObservers();
}

void DealTable::dealsFor(std::optional<std::int64_t> game) {
    mutex.sync([&] {
        gameId_ = game;
        data = game ? Deal::dealsFor(*game) : std::nullopt;
    });
    refreshOnMainQueue();
}

std::optional<std::int64_t> DealTable::gameId() {
    std::optional<std::int64_t> game;
    mutex.sync([&] { game = gameId_; });
    return game;
}

void DealTable::refreshOnMainQueue() {
    onMainQueue([this] {
        tableView->reloadData();
        deselectAll();
        changeSelection(0, true);
        if (electionTable) {
            const auto first = dealAt(0);
            electionTable->electionsFor(first ? std::optional(first->id) : std::nullopt);
        }
    });
}

void DealTable::registerObservers() {
    registerEvent(Event::dealTableDidChange, [this] {
        // Re-read for the game on show, in the same critical section that reads gameId, so
        // a game chosen meanwhile on the main thread is never overwritten with an older one.
        mutex.sync([this] { data = gameId_ ? Deal::dealsFor(*gameId_) : std::nullopt; });
        refreshOnMainQueue();
    });
}

int DealTable::numberOfRows() {
    return countRows(mutex, data);
}

std::any DealTable::objectValue(int row) {
    return objectAt(mutex, data, row);
}

std::shared_ptr<Deal> DealTable::dealAt(int row) {
    return recordAt(mutex, data, row);
}

OneColumnTableCell* DealTable::cellFor(int row) {
    return OneColumnTable::cellFor(row, this);
}

void DealTable::deselectAll() {
    unmarkAllCells();
}

void DealTable::changeSelection(int row, bool state) {
    deselectAll();
    markCell(row, state);
    if (auto deal = dealAt(row)) {
        if (electionTable) {
            electionTable->electionsFor(deal->id);
        }
    } else if (electionTable) {
        electionTable->electionsFor(std::nullopt);
    }
}

void DealTable::draw(OneColumnTableCell& cell, QPainter& painter) {
    const auto* deal = std::any_cast<std::shared_ptr<Deal>>(&cell.objectValue);
    if (deal == nullptr || *deal == nullptr) {
        return;
    }
    const TextAttributes& attr = cell.isSelected() ? selectedAttr : normalAttr;
    const QString name = QString::fromStdString((*deal)->name);
    attr.draw(painter, name, QPointF(15, (cell.bounds.height() - attr.size(name).height()) * 0.5));
}

}  // namespace pointlane
