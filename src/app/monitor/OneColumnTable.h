#pragma once

#include <QWidget>
#include <functional>
#include <map>
#include <memory>

#include "monitor/OneColumnTableCell.h"

namespace pointlane {

class OneColumnTableCellDelegate;
class OneColumnTableView;

// The container of one OneColumnTableView, filling it; the base of the monitor's lists. It
// also keeps the lists' cell cache and hands their refreshes to the main queue safely.
//
// Main thread only, except onMainQueue(), which any thread may call while the list exists.
class OneColumnTable : public QWidget {
    Q_OBJECT

  public:
    explicit OneColumnTable(QWidget* parent = nullptr);
    ~OneColumnTable() override;

    OneColumnTableView* tableView;

    // The cached cell for row, if one was made.
    OneColumnTableCell* cachedCell(int row) const;

  protected:
    // The cell cached for row, made (with delegate) on first request. Cells are never dropped:
    // after a reload a cell shows whatever record then stands at its row.
    OneColumnTableCell* cellFor(int row, OneColumnTableCellDelegate* delegate);
    // Unmarks every cached cell.
    void unmarkAllCells();
    // Marks or unmarks the cached cell of row, if there is one.
    void markCell(int row, bool state);

    // Runs block on the main queue unless this list has been destroyed by then. Change
    // handlers call this on the posting thread while the window may be closing.
    void onMainQueue(std::function<void()> block) const;

    std::map<int, std::unique_ptr<OneColumnTableCell>> cellView;

  private:
    std::shared_ptr<int> alive_;  // expires with the list; checked on the main thread
};

}  // namespace pointlane
