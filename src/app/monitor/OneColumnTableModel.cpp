#include "monitor/OneColumnTableModel.h"

namespace pointlane {

void OneColumnTableModel::reset(int rows) {
    beginResetModel();
    rows_ = rows < 0 ? 0 : rows;
    endResetModel();
}

int OneColumnTableModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : rows_;
}

int OneColumnTableModel::columnCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : 1;
}

QVariant OneColumnTableModel::data(const QModelIndex&, int) const {
    return {};
}

QVariant OneColumnTableModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (section == 0 && orientation == Qt::Horizontal && role == Qt::DisplayRole) {
        return QString::fromLatin1(kColumnIdentifier);
    }
    return {};
}

Qt::ItemFlags OneColumnTableModel::flags(const QModelIndex& index) const {
    // Selectable, never editable.
    return index.isValid() ? Qt::ItemIsEnabled | Qt::ItemIsSelectable : Qt::NoItemFlags;
}

}  // namespace pointlane
