#include "monitor/OneColumnSelectionModel.h"

#include "monitor/OneColumnTableView.h"

namespace pointlane {

OneColumnSelectionModel::OneColumnSelectionModel(QAbstractItemModel* model,
                                                 OneColumnTableView* table)
    : QItemSelectionModel(model, table), table_(table) {}

void OneColumnSelectionModel::select(const QItemSelection& selection, SelectionFlags command) {
    if (!restoring_ && !selection.isEmpty() && !selection.indexes().isEmpty()) {
        const int row = selection.indexes().first().row();
        const bool selects = command.testFlag(Select) ||
                             (command.testFlag(Toggle) && !isRowSelected(row, QModelIndex()));
        if (selects && !table_->shouldSelectRow(row)) {
            return;
        }
    }
    QItemSelectionModel::select(selection, command);
}

void OneColumnSelectionModel::restoreRow(int row) {
    restoring_ = true;
    const QModelIndex index = model()->index(row, 0);
    QItemSelectionModel::select(QItemSelection(index, index), ClearAndSelect | Rows);
    restoring_ = false;
}

}  // namespace pointlane
