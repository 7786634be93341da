#include "monitor/ElectionTable.h"

#include <QPainter>

namespace pointlane {

ElectionTable::ElectionTable(QWidget* parent)
    : RecordTable("pointlane.ElectionTable.mutex", parent),
      nameSelectedAttr(TextAttributes::system(16, true, Qt::white)),
      nameNormalAttr(TextAttributes::system(16, true, kLightGrey)),
      symbolSelectedAttr(TextAttributes::system(28, true, Qt::white)),
      symbolNormalAttr(TextAttributes::system(28, true, kLightGrey)) {
    load();
    deselectAll();
    changeSelection(0, true);
    registerObservers();
}

ElectionTable::~ElectionTable() {
    removeObservers();
}

void ElectionTable::electionsFor(std::optional<std::int64_t> deal) {
    refresh([&] { dealId_ = deal; });
}

std::optional<std::int64_t> ElectionTable::dealId() {
    return guarded(dealId_);
}

ElectionTable::Rows ElectionTable::read() {
    return dealId_ ? Election::electionsFor(*dealId_) : std::nullopt;
}

void ElectionTable::didReload() {
    deselectAll();
    changeSelection(0, true);
}

void ElectionTable::registerObservers() {
    // Re-reads the elections of the deal on show, whichever deal that is by then.
    registerEvent(Event::electionTableDidChange, [this] { refresh(); });
}

void ElectionTable::changeSelection(int row, bool state) {
    deselectAll();
    markCell(row, state);
}

void ElectionTable::drawRecord(const Election& election, const OneColumnTableCell& cell,
                               QPainter& painter) {
    const bool selected = cell.isSelected();
    const double width = cell.bounds.width();
    const double height = cell.bounds.height();

    const TextAttributes& nameAttr = selected ? nameSelectedAttr : nameNormalAttr;
    const QString name = QString::fromStdString(election.playerName);
    nameAttr.draw(painter, name, QPointF(15, (height - nameAttr.size(name).height()) * 0.5));

    const TextAttributes& symbolAttr = selected ? symbolSelectedAttr : symbolNormalAttr;
    const QString symbol = QString::fromStdString(election.symbol);
    const QSizeF symbolSize = symbolAttr.size(symbol);
    symbolAttr.draw(painter, symbol,
                    QPointF(width - symbolSize.width() - 15, (height - symbolSize.height()) * 0.5));
}

}  // namespace pointlane
