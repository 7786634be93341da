#pragma once

#include <QTableView>
#include <any>

namespace pointlane {

class OneColumnItemDelegate;
class OneColumnSelectionModel;
class OneColumnTableCell;
class OneColumnTableDataSource;
class OneColumnTableModel;
class OneColumnTableViewDelegate;

// A table of one column ("data", OneColumnTableModel::kColumnIdentifier) without headers,
// with 55-pixel rows drawn as grey cards. It keeps no selection state in the cells: before a
// row is selected it asks its owner (tableViewDelegate) to unmark the old row and mark the new
// one, and when the selection becomes empty it tells the owner to unmark everything.
//
// Main thread only.
class OneColumnTableView final : public QTableView {
    Q_OBJECT

  public:
    explicit OneColumnTableView(QWidget* parent = nullptr);

    // Non-owning; the owner outlives the table (it owns it). nullptr: no cells are shown.
    OneColumnTableViewDelegate* tableViewDelegate = nullptr;
    // Non-owning, like tableViewDelegate.
    OneColumnTableDataSource* dataSource = nullptr;

    // Re-reads the number of rows and repaints; the selected row stays selected while it
    // still exists. The owner is asked for the cells of every row.
    void reloadData();
    // Rows counted at the last reload.
    int numberOfRows() const;
    // The selected row, -1 when none.
    int selectedRow() const;

    // Asked before row becomes selected: -1 is refused and tells nothing; otherwise the
    // owner unmarks the row selected so far (or -1) and marks row, and the answer is yes.
    bool shouldSelectRow(int row);

    // The owner's cell for row (nullptr without an owner).
    OneColumnTableCell* viewFor(int row);
    // The data source's record for row (empty without a source).
    std::any objectValue(int row);
    // Repaints one row.
    void updateRow(int row);

  private:
    void selectionDidChange();

    OneColumnTableModel* model_;
    OneColumnSelectionModel* selection_;
    OneColumnItemDelegate* itemDelegate_;
};

}  // namespace pointlane
