#pragma once

#include <QPointer>
#include <QRectF>
#include <any>

class QPainter;

namespace pointlane {

class OneColumnTableCellDelegate;
class OneColumnTableView;

// The content area of one row. It holds the record of its row (objectValue) and whether its
// owner shows it as selected; its delegate draws it. Not a widget: the table view paints it.
//
// Main thread only.
class OneColumnTableCell final {
  public:
    // view and row tell which part of which table to repaint when isSelected changes.
    OneColumnTableCell(OneColumnTableView* view, int row);
    OneColumnTableCell(const OneColumnTableCell&) = delete;
    OneColumnTableCell& operator=(const OneColumnTableCell&) = delete;

    bool isSelected() const { return isSelected_; }
    // Every assignment asks for a redraw.
    void setSelected(bool selected);
    // Asks the table to repaint this cell's row.
    void setNeedsDisplay();

    // Calls the delegate's draw(); without a delegate nothing is drawn.
    void draw(QPainter& painter);

    int row() const { return row_; }
    // The cell's own coordinates: origin (0, 0), the row's size.
    QRectF bounds;
    // The record of the row, handed over by the table before each drawing.
    std::any objectValue;
    // Non-owning: the owner of the table, which outlives its cells.
    OneColumnTableCellDelegate* delegate = nullptr;

  private:
    QPointer<OneColumnTableView> view_;
    int row_;
    bool isSelected_ = false;
};

}  // namespace pointlane
