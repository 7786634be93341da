#pragma once

namespace pointlane {

class OneColumnTableCell;

// The owner of a OneColumnTableView: supplies the cells and carries the visible selection.
// Called on the main thread only.
class OneColumnTableViewDelegate {
  public:
    // The cell for row, or nullptr.
    virtual OneColumnTableCell* cellFor(int row) = 0;
    // Marks (state true) or unmarks row's cell. row -1 means no row.
    virtual void changeSelection(int row, bool state) = 0;
    // Unmarks every cell.
    virtual void deselectAll() = 0;

  protected:
    ~OneColumnTableViewDelegate() = default;
};

}  // namespace pointlane
