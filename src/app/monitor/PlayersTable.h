#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "monitor/OneColumnTable.h"
#include "monitor/OneColumnTableCellDelegate.h"
#include "monitor/OneColumnTableDataSource.h"
#include "monitor/OneColumnTableViewDelegate.h"
#include "monitor/RecordRows.h"
#include "monitor/TextAttributes.h"
#include "storage/PlayerInfo.h"
#include "support/EventObserver.h"
#include "support/Mutex.h"

namespace pointlane {

// The known players by name, each with the address it logged in from. A refresh keeps the
// selection as it is.
//
// Widget work on the main thread. `data` is guarded by `mutex`: the change handler replaces
// it on the thread that stored the player, the table reads it on the main thread.
class PlayersTable final : public OneColumnTable,
                           public OneColumnTableViewDelegate,
                           public OneColumnTableCellDelegate,
                           public OneColumnTableDataSource,
                           public EventObserver {
    Q_OBJECT

  public:
    explicit PlayersTable(QWidget* parent = nullptr);
    ~PlayersTable() override;

    int numberOfRows() override;
    std::any objectValue(int row) override;
    OneColumnTableCell* cellFor(int row) override;
    void changeSelection(int row, bool state) override;
    void deselectAll() override;
    void draw(OneColumnTableCell& cell, QPainter& painter) override;

    const TextAttributes selectedAttr1;
    const TextAttributes selectedAttr2;
    const TextAttributes normalAttr1;
    const TextAttributes normalAttr2;

  private:
    void registerObservers();
    std::shared_ptr<PlayerInfo> playerAt(int row);

    RecordRows<PlayerInfo> data;  // guarded by mutex
    Mutex mutex{"pointlane.PlayerTable.mutex"};
};

}  // namespace pointlane
