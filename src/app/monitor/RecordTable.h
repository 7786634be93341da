#pragma once

#include <any>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "monitor/OneColumnTable.h"
#include "monitor/OneColumnTableCell.h"
#include "monitor/OneColumnTableCellDelegate.h"
#include "monitor/OneColumnTableDataSource.h"
#include "monitor/OneColumnTableView.h"
#include "monitor/OneColumnTableViewDelegate.h"
#include "support/EventObserver.h"
#include "support/Mutex.h"

namespace pointlane {

// What the monitor's record lists (games, deals, elections, known players) have in common: a
// OneColumnTable that is its own data source, table delegate and cell delegate, keeps the
// records it shows in `data` and re-reads them when told they changed. A list adds what
// differs: which records it reads (read()), what the main thread does after a refresh
// (didReload()), how a selection spreads (changeSelection()) and how a record is drawn
// (drawRecord()). The record of a row reaches its cell as a std::shared_ptr<Record>; draw()
// hands it back typed.
//
// Widget work on the main thread. `data`, and whatever read() depends on, are guarded by
// `mutex`: change handlers re-read on the thread that posted, the table reads on the main
// thread. Each list calls removeObservers() first in its own destructor, so that no handler
// reaches read() of a list that is being destroyed.
template <class Record>
class RecordTable : public OneColumnTable,
                    public OneColumnTableViewDelegate,
                    public OneColumnTableCellDelegate,
                    public OneColumnTableDataSource,
                    public EventObserver {
  public:
    // The records shown, row r the r-th; absent when there is nothing to show.
    using Rows = std::optional<std::vector<std::shared_ptr<Record>>>;

    // The number of rows: 0 without data, or when the lock can't be taken.
    int numberOfRows() final {
        int count = 0;
        mutex.sync([&] { count = data ? static_cast<int>(data->size()) : 0; });
        return count;
    }
    // The record at row as its cell's object value; empty where recordAt() has none.
    std::any objectValue(int row) final {
        if (auto record = recordAt(row)) {
            return record;
        }
        return {};
    }
    // The record at row; nullptr without data or outside it (the data shrank after the table
    // counted the rows). Any thread.
    std::shared_ptr<Record> recordAt(int row) {
        std::shared_ptr<Record> record;
        mutex.sync([&] {
            if (data && row >= 0 && row < static_cast<int>(data->size())) {
                record = (*data)[static_cast<std::size_t>(row)];
            }
        });
        return record;
    }

    // The cached cell of row, made with this list as its delegate on first request.
    OneColumnTableCell* cellFor(int row) final { return OneColumnTable::cellFor(row, this); }
    // Unmarks every cached cell.
    void deselectAll() final { unmarkAllCells(); }

    // Draws the cell's record; a cell without a record of this list's kind stays empty.
    void draw(OneColumnTableCell& cell, QPainter& painter) final {
        const auto* record = std::any_cast<std::shared_ptr<Record>>(&cell.objectValue);
        if (record != nullptr && *record != nullptr) {
            drawRecord(**record, cell, painter);
        }
    }

  protected:
    RecordTable(std::string mutexName, QWidget* parent)
        : OneColumnTable(parent), mutex(std::move(mutexName)) {}
    ~RecordTable() override = default;

    // The records to show, from the database. Runs under `mutex`, on any thread.
    virtual Rows read() = 0;
    // The main thread's part of a refresh, after the table was reloaded.
    virtual void didReload() {}
    // Draws record into cell; the painter's origin is the cell's top-left corner.
    virtual void drawRecord(const Record& record, const OneColumnTableCell& cell,
                            QPainter& painter) = 0;

    // Reads the first rows, becomes the table's data source and delegate, and reloads it.
    // Called once by the list's constructor.
    void load() {
        mutex.sync([this] { data = read(); });
        tableView->dataSource = this;
        tableView->tableViewDelegate = this;
        tableView->reloadData();
    }

    // Runs change (which sets what read() depends on) and re-reads the rows, both in one
    // critical section, so a newer choice is never overwritten with rows read for an older
    // one; then reloads the table and calls didReload() on the main queue. Any thread.
    template <class Change>
    void refresh(Change&& change) {
        mutex.sync([&] {
            std::forward<Change>(change)();
            data = read();
        });
        onMainQueue([this] {
            tableView->reloadData();
            didReload();
        });
    }
    void refresh() {
        refresh([] {});
    }

    // The id of the record at row; nothing where there is no record.
    std::optional<std::int64_t> idAt(int row) {
        const auto record = recordAt(row);
        return record ? std::optional(record->id) : std::nullopt;
    }

    // A copy of field, read under `mutex` (for what read() depends on). Any thread.
    template <class Field>
    Field guarded(const Field& field) {
        Field copy{};
        mutex.sync([&] { copy = field; });
        return copy;
    }

    Mutex mutex;
    Rows data;  // guarded by mutex
};

}  // namespace pointlane
