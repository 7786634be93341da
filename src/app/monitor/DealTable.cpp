#include "monitor/DealTable.h"

#include <QPainter>

#include "monitor/ElectionTable.h"

namespace pointlane {

DealTable::DealTable(QWidget* parent)
    : RecordTable("pointlane.DealTable.mutex", parent),
      selectedAttr(TextAttributes::system(18, true, Qt::white)),
      normalAttr(TextAttributes::system(18, true, kLightGrey)) {
    load();
    deselectAll();
    changeSelection(0, true);
    registerObservers();
}

DealTable::~DealTable() {
    removeObservers();
}

void DealTable::dealsFor(std::optional<std::int64_t> game) {
    refresh([&] { gameId_ = game; });
}

std::optional<std::int64_t> DealTable::gameId() {
    return guarded(gameId_);
}

DealTable::Rows DealTable::read() {
    return gameId_ ? Deal::dealsFor(*gameId_) : std::nullopt;
}

void DealTable::didReload() {
    deselectAll();
    changeSelection(0, true);
    if (electionTable) {
        electionTable->electionsFor(idAt(0));
    }
}

void DealTable::registerObservers() {
    // Re-reads the deals of the game on show, whichever game that is by then.
    registerEvent(Event::dealTableDidChange, [this] { refresh(); });
}

void DealTable::changeSelection(int row, bool state) {
    deselectAll();
    markCell(row, state);
    if (electionTable) {
        electionTable->electionsFor(idAt(row));
    }
}

void DealTable::drawRecord(const Deal& deal, const OneColumnTableCell& cell, QPainter& painter) {
    const TextAttributes& attr = cell.isSelected() ? selectedAttr : normalAttr;
    const QString name = QString::fromStdString(deal.name);
    attr.draw(painter, name, QPointF(15, (cell.bounds.height() - attr.size(name).height()) * 0.5));
}

}  // namespace pointlane
