#include "monitor/OneColumnTable.h"

#include <QVBoxLayout>

#include "monitor/OneColumnTableView.h"
#include "support/MainQueue.h"

namespace pointlane {

OneColumnTable::OneColumnTable(QWidget* parent)
    : QWidget(parent), tableView(new OneColumnTableView(this)), alive_(std::make_shared<int>(0)) {
    setGeometry(0, 0, 10, 10);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(tableView);
}

OneColumnTable::~OneColumnTable() = default;

OneColumnTableCell* OneColumnTable::cachedCell(int row) const {
    const auto found = cellView.find(row);
    return found != cellView.end() ? found->second.get() : nullptr;
}

OneColumnTableCell* OneColumnTable::cellFor(int row, OneColumnTableCellDelegate* delegate) {
    if (OneColumnTableCell* cell = cachedCell(row)) {
        return cell;
    }
    auto cell = std::make_unique<OneColumnTableCell>(tableView, row);
    cell->delegate = delegate;
    return cellView.emplace(row, std::move(cell)).first->second.get();
}

void OneColumnTable::unmarkAllCells() {
    for (auto& [row, cell] : cellView) {
        cell->setSelected(false);
    }
}

void OneColumnTable::markCell(int row, bool state) {
    if (OneColumnTableCell* cell = cachedCell(row)) {
        cell->setSelected(state);
    }
}

void OneColumnTable::onMainQueue(std::function<void()> block) const {
    mainAsync([alive = std::weak_ptr<int>(alive_), block = std::move(block)] {
        if (alive.lock()) {
            block();
        }
    });
}

}  // namespace pointlane
