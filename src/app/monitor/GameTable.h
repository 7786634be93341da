#pragma once

#include <QPointer>
#include <memory>
#include <optional>
#include <vector>

#include "monitor/OneColumnTable.h"
#include "monitor/OneColumnTableCellDelegate.h"
#include "monitor/OneColumnTableDataSource.h"
#include "monitor/OneColumnTableViewDelegate.h"
#include "monitor/RecordRows.h"
#include "monitor/TextAttributes.h"
#include "storage/Game.h"
#include "support/EventObserver.h"
#include "support/Mutex.h"

namespace pointlane {

class DealTable;

// The stored games, newest first, with the newest one marked after every change. Choosing a
// game shows its deals in dealTable.
//
// Widget work on the main thread. `data` is guarded by `mutex`: the change handler replaces
// it on the thread that stored the game, the table reads it on the main thread.
class GameTable final : public OneColumnTable,
                        public OneColumnTableViewDelegate,
                        public OneColumnTableCellDelegate,
                        public OneColumnTableDataSource,
                        public EventObserver {
    Q_OBJECT

  public:
    explicit GameTable(QWidget* parent = nullptr);
    ~GameTable() override;

    // OneColumnTableDataSource
    int numberOfRows() override;
    std::any objectValue(int row) override;
    // OneColumnTableViewDelegate
    OneColumnTableCell* cellFor(int row) override;
    void changeSelection(int row, bool state) override;
    void deselectAll() override;
    // OneColumnTableCellDelegate
    void draw(OneColumnTableCell& cell, QPainter& painter) override;

    const TextAttributes nameSelectedAttr;
    const TextAttributes nameNormalAttr;
    const TextAttributes dateSelectedAttr;
    const TextAttributes dateNormalAttr;
    const TextAttributes adminSelectedAttr;
    const TextAttributes adminNormalAttr;

    // Set by the history view; follows this list's selection.
    QPointer<DealTable> dealTable;

  private:
    void initialSelect();
    void registerObservers();
    std::shared_ptr<Game> gameAt(int row);

    RecordRows<Game> data;  // guarded by mutex
    Mutex mutex{"pointlane.GameTable.mutex"};
};

}  // namespace pointlane
