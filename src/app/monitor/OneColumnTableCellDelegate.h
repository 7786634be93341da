#pragma once

class QPainter;

namespace pointlane {

class OneColumnTableCell;

// Draws a cell's content. The painter's origin is the cell's top-left corner (y grows
// downwards) and the cell's bounds are the area to draw in. Main thread only.
class OneColumnTableCellDelegate {
  public:
    virtual void draw(OneColumnTableCell& cell, QPainter& painter) = 0;

  protected:
    ~OneColumnTableCellDelegate() = default;
};

}  // namespace pointlane
