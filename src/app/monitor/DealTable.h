#pragma once

#include <QPointer>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "monitor/OneColumnTable.h"
#include "monitor/OneColumnTableCellDelegate.h"
#include "monitor/OneColumnTableDataSource.h"
#include "monitor/OneColumnTableViewDelegate.h"
#include "monitor/RecordRows.h"
#include "monitor/TextAttributes.h"
#include "storage/Deal.h"
#include "support/EventObserver.h"
#include "support/Mutex.h"

namespace pointlane {

class ElectionTable;

// The deals of one game (gameId), newest first, the newest marked after each load. Choosing
// a deal shows its elections in electionTable.
//
// Widget work on the main thread. `data` and `gameId` are guarded by `mutex`: the change
// handler re-reads the deals on the thread that stored one, the table reads on the main thread.
class DealTable final : public OneColumnTable,
                        public OneColumnTableViewDelegate,
                        public OneColumnTableCellDelegate,
                        public OneColumnTableDataSource,
                        public EventObserver {
    Q_OBJECT

  public:
    explicit DealTable(QWidget* parent = nullptr);
    ~DealTable() override;

    // Loads the deals of game (none for no game) and shows them on the main queue. Any thread.
    void dealsFor(std::optional<std::int64_t> game);
    // The game whose deals are shown.
    std::optional<std::int64_t> gameId();

    int numberOfRows() override;
    std::any objectValue(int row) override;
    OneColumnTableCell* cellFor(int row) override;
    void changeSelection(int row, bool state) override;
    void deselectAll() override;
    void draw(OneColumnTableCell& cell, QPainter& painter) override;

    const TextAttributes selectedAttr;
    const TextAttributes normalAttr;

    // Set by the history view; follows this list's selection.
    QPointer<ElectionTable> electionTable;

  private:
    void registerObservers();
    // Reload, mark the newest deal and show its elections, on the main queue.
    void refreshOnMainQueue();
    std::shared_ptr<Deal> dealAt(int row);

    Mutex mutex{"pointlane.DealTable.mutex"};
    RecordRows<Deal> data;                // guarded by mutex
    std::optional<std::int64_t> gameId_;  // guarded by mutex
};

}  // namespace pointlane
