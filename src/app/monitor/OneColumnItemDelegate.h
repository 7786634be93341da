#pragma once

#include <QStyledItemDelegate>

namespace pointlane {

class OneColumnTableView;

// Paints one row of a OneColumnTableView: the row's card, then the owner's cell over it.
// Main thread only.
class OneColumnItemDelegate final : public QStyledItemDelegate {
    Q_OBJECT

  public:
    explicit OneColumnItemDelegate(OneColumnTableView* table);

    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;
    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;

  private:
    OneColumnTableView* table_;  // owns this delegate
};

}  // namespace pointlane
