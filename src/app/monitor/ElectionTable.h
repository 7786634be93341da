#pragma once

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
#include "storage/Election.h"
#include "support/EventObserver.h"
#include "support/Mutex.h"

namespace pointlane {

// The elections of one deal (dealId), newest first: who elected which card.
//
// Widget work on the main thread. `data` and `dealId` are guarded by `mutex`: the change
// handler re-reads on the thread that stored an election, the table reads on the main thread.
class ElectionTable final : public OneColumnTable,
                            public OneColumnTableViewDelegate,
                            public OneColumnTableCellDelegate,
                            public OneColumnTableDataSource,
                            public EventObserver {
    Q_OBJECT

  public:
    explicit ElectionTable(QWidget* parent = nullptr);
    ~ElectionTable() override;

    // Loads the elections of deal (none for no deal) and shows them on the main queue.
    // Any thread.
    void electionsFor(std::optional<std::int64_t> deal);
    // The deal whose elections are shown.
    std::optional<std::int64_t> dealId();

    int numberOfRows() override;
    std::any objectValue(int row) override;
    OneColumnTableCell* cellFor(int row) override;
    void changeSelection(int row, bool state) override;
    void deselectAll() override;
    void draw(OneColumnTableCell& cell, QPainter& painter) override;

    const TextAttributes nameSelectedAttr;
    const TextAttributes nameNormalAttr;
    const TextAttributes symbolSelectedAttr;
    const TextAttributes symbolNormalAttr;

  private:
    void registerObservers();
    void refreshOnMainQueue();
    std::shared_ptr<Election> electionAt(int row);

    RecordRows<Election> data;  // guarded by mutex
    Mutex mutex{"pointlane.ElectionTable.mutex"};
    std::optional<std::int64_t> dealId_;  // guarded by mutex
};

}  // namespace pointlane
