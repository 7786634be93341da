#include "monitor/GameTable.h"

#include <QDateTime>
#include <QPainter>
#include <chrono>

#include "monitor/DealTable.h"

namespace pointlane {

GameTable::GameTable(QWidget* parent)
    : RecordTable("pointlane.GameTable.mutex", parent),
      nameSelectedAttr(TextAttributes::system(16, true, Qt::white)),
      nameNormalAttr(TextAttributes::system(16, true, kLightGrey)),
      dateSelectedAttr(TextAttributes::system(12, true, Qt::white)),
      dateNormalAttr(TextAttributes::system(12, true, kLightGrey)),
      adminSelectedAttr(TextAttributes::system(12, true, Qt::white)),
      adminNormalAttr(TextAttributes::system(12, true, kLightGrey)) {
    load();
    initialSelect();
    registerObservers();
}

GameTable::~GameTable() {
    removeObservers();
}

GameTable::Rows GameTable::read() {
    return Game::games();
}

void GameTable::didReload() {
    initialSelect();
}

void GameTable::changeSelection(int row, bool state) {
    deselectAll();
    markCell(row, state);
    // The deal list follows the row even when it is being unmarked: the selection always ends
    // with the newly chosen row, so the deals shown are the chosen game's. A row without a
    // game (-1 or beyond the data) empties the deal list.
    if (dealTable) {
        dealTable->dealsFor(idAt(row));
    }
}

void GameTable::initialSelect() {
    deselectAll();
    changeSelection(0, true);
}

void GameTable::registerObservers() {
    registerEvent(Event::gameTableDidChange, [this] { refresh(); });
}

void GameTable::drawRecord(const Game& game, const OneColumnTableCell& cell, QPainter& painter) {
    const bool selected = cell.isSelected();
    const double width = cell.bounds.width();
    const double height = cell.bounds.height();

    const TextAttributes& nameAttr = selected ? nameSelectedAttr : nameNormalAttr;
    nameAttr.draw(painter, QString::fromStdString(game.name), QPointF(15, 10));

    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(game.date.time_since_epoch()).count();
    const QString date = QDateTime::fromSecsSinceEpoch(seconds, Qt::LocalTime)
                             .toString(QStringLiteral("yyyy-MM-dd"));
    const TextAttributes& dateAttr = selected ? dateSelectedAttr : dateNormalAttr;
    const QSizeF dateSize = dateAttr.size(date);
    dateAttr.draw(painter, date, QPointF(15, height - dateSize.height() - 5));

    const QString admin = QString::fromStdString(game.admin);
    const TextAttributes& adminAttr = selected ? adminSelectedAttr : adminNormalAttr;
    const QSizeF adminSize = adminAttr.size(admin);
    adminAttr.draw(painter, admin,
                   QPointF(width - adminSize.width() - 15, height - adminSize.height() - 5));
}

}  // namespace pointlane
