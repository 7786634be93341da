#pragma once

#include <QPointer>

#include "monitor/RecordTable.h"
#include "monitor/TextAttributes.h"
#include "storage/Game.h"

namespace pointlane {

class DealTable;

// The stored games, newest first, with the newest one marked after every change. Choosing a
// game shows its deals in dealTable.
//
// Widget work on the main thread; the rows are guarded by the list's mutex (RecordTable).
class GameTable final : public RecordTable<Game> {
    Q_OBJECT

  public:
    explicit GameTable(QWidget* parent = nullptr);
    ~GameTable() override;

    void changeSelection(int row, bool state) override;

    const TextAttributes nameSelectedAttr;
    const TextAttributes nameNormalAttr;
    const TextAttributes dateSelectedAttr;
    const TextAttributes dateNormalAttr;
    const TextAttributes adminSelectedAttr;
    const TextAttributes adminNormalAttr;

    // Set by the history view; follows this list's selection.
    QPointer<DealTable> dealTable;

  private:
    Rows read() override;
    void didReload() override;
    void drawRecord(const Game& game, const OneColumnTableCell& cell, QPainter& painter) override;
    void initialSelect();
    void registerObservers();
};

}  // namespace pointlane
