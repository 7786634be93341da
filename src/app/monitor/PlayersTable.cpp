#include "monitor/PlayersTable.h"

#include <QPainter>

namespace pointlane {

PlayersTable::PlayersTable(QWidget* parent)
    : RecordTable("pointlane.PlayerTable.mutex", parent),
      selectedAttr1(TextAttributes::system(26, true, Qt::white)),
      selectedAttr2(TextAttributes::system(14, false, Qt::white)),
      normalAttr1(TextAttributes::system(26, true, kLightGrey)),
      normalAttr2(TextAttributes::system(14, false, kLightGrey)) {
    load();
    registerObservers();
}

PlayersTable::~PlayersTable() {
    removeObservers();
}

PlayersTable::Rows PlayersTable::read() {
    return PlayerInfo::all();
}

void PlayersTable::registerObservers() {
    registerEvent(Event::playerTableDidChange, [this] { refresh(); });
}

void PlayersTable::changeSelection(int row, bool state) {
    markCell(row, state);
}

void PlayersTable::drawRecord(const PlayerInfo& player, const OneColumnTableCell& cell,
                              QPainter& painter) {
    const bool selected = cell.isSelected();
    const TextAttributes& attr1 = selected ? selectedAttr1 : normalAttr1;
    const TextAttributes& attr2 = selected ? selectedAttr2 : normalAttr2;

    const QString name = QString::fromStdString(player.name);
    attr1.draw(painter, name,
               QPointF(15, (cell.bounds.height() - attr1.size(name).height()) * 0.5));

    const QString address = QStringLiteral("Address: ") + QString::fromStdString(player.address);
    attr2.draw(
        painter, address,
        QPointF(cell.bounds.width() - attr2.size(address).width() - 15, cell.bounds.y() + 5));
}

}  // namespace pointlane
