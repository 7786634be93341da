#include "monitor/OneColumnItemDelegate.h"

#include <QPainter>

#include "monitor/OneColumnTableCell.h"
#include "monitor/OneColumnTableRow.h"
#include "monitor/OneColumnTableView.h"

namespace pointlane {

OneColumnItemDelegate::OneColumnItemDelegate(OneColumnTableView* table)
    : QStyledItemDelegate(table), table_(table) {}

void OneColumnItemDelegate::paint(QPainter* painter, const QStyleOptionViewItem& option,
                                  const QModelIndex& index) const {
    const QRectF rowRect(option.rect);
    const bool selected = option.state.testFlag(QStyle::State_Selected);
    OneColumnTableRow(rowRect, selected).drawBackground(*painter);

    OneColumnTableCell* cell = table_->viewFor(index.row());
    if (cell == nullptr) {
        return;
    }
    cell->objectValue = table_->objectValue(index.row());
    cell->bounds = QRectF(QPointF(0, 0), rowRect.size());
    painter->save();
    painter->translate(rowRect.topLeft());
    painter->setClipRect(cell->bounds);
    painter->setRenderHint(QPainter::TextAntialiasing, true);
    cell->draw(*painter);
    painter->restore();
}

QSize OneColumnItemDelegate::sizeHint(const QStyleOptionViewItem&, const QModelIndex&) const {
    return {10, static_cast<int>(OneColumnTableRow::kHeight)};
}

}  // namespace pointlane
