#pragma once

#include <QItemSelectionModel>

namespace pointlane {

class OneColumnTableView;

// Puts every selection of a row through the table's should-select question before the
// selection changes, so the owner hears of it in the order it expects. Main thread only.
class OneColumnSelectionModel final : public QItemSelectionModel {
    Q_OBJECT

  public:
    OneColumnSelectionModel(QAbstractItemModel* model, OneColumnTableView* table);

    using QItemSelectionModel::select;
    void select(const QItemSelection& selection, SelectionFlags command) override;

    // Selects row without asking (a reload putting back the row selected before).
    void restoreRow(int row);

  private:
    OneColumnTableView* table_;  // owns this model
    bool restoring_ = false;
};

}  // namespace pointlane
