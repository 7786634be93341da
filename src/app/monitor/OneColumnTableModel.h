#pragma once

#include <QAbstractTableModel>

namespace pointlane {

// The row count a OneColumnTableView shows: a snapshot taken at each reload, so the view
// never sees the count move between reloads while other threads replace the owner's data.
// The records themselves come from the data source when a row is painted.
//
// Main thread only.
class OneColumnTableModel final : public QAbstractTableModel {
    Q_OBJECT

  public:
    // The identifier of the one column, answered as its header text (the view hides it).
    static constexpr const char* kColumnIdentifier = "data";

    explicit OneColumnTableModel(QObject* parent) : QAbstractTableModel(parent) {}

    // Replaces the row count; views forget their rows and ask again.
    void reset(int rows);

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;
    Qt::ItemFlags flags(const QModelIndex& index) const override;

  private:
    int rows_ = 0;
};

}  // namespace pointlane
