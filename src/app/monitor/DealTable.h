#pragma once

#include <QPointer>
#include <cstdint>
#include <optional>

#include "monitor/RecordTable.h"
#include "monitor/TextAttributes.h"
#include "storage/Deal.h"

namespace pointlane {

class ElectionTable;

// The deals of one game (gameId), newest first, the newest marked after each load. Choosing
// a deal shows its elections in electionTable.
//
// Widget work on the main thread; the rows and `gameId` are guarded by the list's mutex
// (RecordTable).
class DealTable final : public RecordTable<Deal> {
    Q_OBJECT

  public:
    explicit DealTable(QWidget* parent = nullptr);
    ~DealTable() override;

    // Loads the deals of game (none for no game) and shows them on the main queue. Any thread.
    void dealsFor(std::optional<std::int64_t> game);
    // The game whose deals are shown.
    std::optional<std::int64_t> gameId();

    void changeSelection(int row, bool state) override;

    const TextAttributes selectedAttr;
    const TextAttributes normalAttr;

    // Set by the history view; follows this list's selection.
    QPointer<ElectionTable> electionTable;

  private:
    Rows read() override;
    // Marks the newest deal and shows its elections.
    void didReload() override;
    void drawRecord(const Deal& deal, const OneColumnTableCell& cell, QPainter& painter) override;
    void registerObservers();

    std::optional<std::int64_t> gameId_;  // guarded by mutex
};

}  // namespace pointlane
