#include "monitor/OneColumnTableCell.h"

#include "monitor/OneColumnTableCellDelegate.h"
#include "monitor/OneColumnTableView.h"

namespace pointlane {

OneColumnTableCell::OneColumnTableCell(OneColumnTableView* view, int row)
    : view_(view), row_(row) {}

void OneColumnTableCell::setSelected(bool selected) {
    isSelected_ = selected;
    setNeedsDisplay();
}

void OneColumnTableCell::setNeedsDisplay() {
    if (view_) {
        view_->updateRow(row_);
    }
}

void OneColumnTableCell::draw(QPainter& painter) {
    if (delegate != nullptr) {
        delegate->draw(*this, painter);
    }
}

}  // namespace pointlane
