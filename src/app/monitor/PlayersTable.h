#pragma once

#include "monitor/RecordTable.h"
#include "monitor/TextAttributes.h"
#include "storage/PlayerInfo.h"

namespace pointlane {

// The known players by name, each with the address it logged in from. A refresh keeps the
// selection as it is.
//
// Widget work on the main thread; the rows are guarded by the list's mutex (RecordTable).
class PlayersTable final : public RecordTable<PlayerInfo> {
    Q_OBJECT

  public:
    explicit PlayersTable(QWidget* parent = nullptr);
    ~PlayersTable() override;

    void changeSelection(int row, bool state) override;

    const TextAttributes selectedAttr1;
    const TextAttributes selectedAttr2;
    const TextAttributes normalAttr1;
    const TextAttributes normalAttr2;

  private:
    Rows read() override;
    void drawRecord(const PlayerInfo& player, const OneColumnTableCell& cell,
                    QPainter& painter) override;
    void registerObservers();
};

}  // namespace pointlane
