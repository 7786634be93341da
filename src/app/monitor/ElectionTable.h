#pragma once

#include <cstdint>
#include <optional>

#include "monitor/RecordTable.h"
#include "monitor/TextAttributes.h"
#include "storage/Election.h"

namespace pointlane {

// The elections of one deal (dealId), newest first: who elected which card.
//
// Widget work on the main thread; the rows and `dealId` are guarded by the list's mutex
// (RecordTable).
class ElectionTable final : public RecordTable<Election> {
    Q_OBJECT

  public:
    explicit ElectionTable(QWidget* parent = nullptr);
    ~ElectionTable() override;

    // Loads the elections of deal (none for no deal) and shows them on the main queue.
    // Any thread.
    void electionsFor(std::optional<std::int64_t> deal);
    // The deal whose elections are shown.
    std::optional<std::int64_t> dealId();

    void changeSelection(int row, bool state) override;

    const TextAttributes nameSelectedAttr;
    const TextAttributes nameNormalAttr;
    const TextAttributes symbolSelectedAttr;
    const TextAttributes symbolNormalAttr;

  private:
    Rows read() override;
    // Marks the newest election.
    void didReload() override;
    void drawRecord(const Election& election, const OneColumnTableCell& cell,
                    QPainter& painter) override;
    void registerObservers();

    std::optional<std::int64_t> dealId_;  // guarded by mutex
};

}  // namespace pointlane
