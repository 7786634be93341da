#include "monitor/OneColumnTableView.h"

#include <QHeaderView>

#include "monitor/OneColumnItemDelegate.h"
#include "monitor/OneColumnSelectionModel.h"
#include "monitor/OneColumnTableDataSource.h"
#include "monitor/OneColumnTableModel.h"
#include "monitor/OneColumnTableRow.h"
#include "monitor/OneColumnTableViewDelegate.h"

namespace pointlane {

OneColumnTableView::OneColumnTableView(QWidget* parent)
    : QTableView(parent),
      model_(new OneColumnTableModel(this)),
      selection_(nullptr),
      itemDelegate_(new OneColumnItemDelegate(this)) {
    setGeometry(0, 0, 10, 10);
    horizontalHeader()->hide();
    verticalHeader()->hide();
    setModel(model_);
    QItemSelectionModel* platformSelection = selectionModel();
    selection_ = new OneColumnSelectionModel(model_, this);
    setSelectionModel(selection_);
    delete platformSelection;
    connect(selection_, &QItemSelectionModel::selectionChanged, this,
            [this] { selectionDidChange(); });

    setItemDelegate(itemDelegate_);
    setSelectionMode(QAbstractItemView::SingleSelection);
    setSelectionBehavior(QAbstractItemView::SelectRows);
    setEditTriggers(QAbstractItemView::NoEditTriggers);
    setShowGrid(false);
    setFrameShape(QFrame::NoFrame);
    setFocusPolicy(Qt::StrongFocus);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    setVerticalScrollMode(QAbstractItemView::ScrollPerPixel);
    horizontalHeader()->setStretchLastSection(true);
    verticalHeader()->setMinimumSectionSize(1);
    verticalHeader()->setSectionResizeMode(QHeaderView::Fixed);
    verticalHeader()->setDefaultSectionSize(static_cast<int>(OneColumnTableRow::kHeight));

    QPalette colours = palette();
    colours.setColor(QPalette::Base, OneColumnTableRow::backgroundColor());
    colours.setColor(QPalette::Window, OneColumnTableRow::backgroundColor());
    setPalette(colours);
    viewport()->setAutoFillBackground(true);
}

void OneColumnTableView::reloadData() {
    const int previous = selectedRow();
    const int rows = dataSource != nullptr ? dataSource->numberOfRows() : 0;
    model_->reset(rows);
    for (int row = 0; row < rows; ++row) {
        viewFor(row);
    }
    if (previous < 0) {
        return;
    }
    if (previous < model_->rowCount()) {
        selection_->restoreRow(previous);
    } else {
        // The row went away with the reload: the selection is empty now.
        selectionDidChange();
    }
}

int OneColumnTableView::numberOfRows() const {
    return model_->rowCount();
}

int OneColumnTableView::selectedRow() const {
    const QModelIndexList rows = selection_->selectedRows();
    return rows.isEmpty() ? -1 : rows.first().row();
}

bool OneColumnTableView::shouldSelectRow(int row) {
    if (row == -1) {
        return false;
    }
    if (tableViewDelegate != nullptr) {
        tableViewDelegate->changeSelection(selectedRow(), false);
        tableViewDelegate->changeSelection(row, true);
    }
    return true;
}

void OneColumnTableView::selectionDidChange() {
    if (selectedRow() == -1 && tableViewDelegate != nullptr) {
        tableViewDelegate->deselectAll();
    }
}

OneColumnTableCell* OneColumnTableView::viewFor(int row) {
    return tableViewDelegate != nullptr ? tableViewDelegate->cellFor(row) : nullptr;
}

std::any OneColumnTableView::objectValue(int row) {
    return dataSource != nullptr ? dataSource->objectValue(row) : std::any();
}

void OneColumnTableView::updateRow(int row) {
    if (row >= 0 && row < model_->rowCount()) {
        viewport()->update(visualRect(model_->index(row, 0)));
    }
}

}  // namespace pointlane
