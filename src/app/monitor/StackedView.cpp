#include "monitor/StackedView.h"

#include "monitor/HistoryView.h"
#include "monitor/PlayersTable.h"

namespace pointlane {

StackedView::StackedView(QWidget* parent)
    : QWidget(parent), playersTable(new PlayersTable(this)), historyView(new HistoryView(this)) {
    changeView(index);
}

void StackedView::changeView(StackedViewIndex to) {
    playersTable->setVisible(to == StackedViewIndex::players);
    historyView->setVisible(to == StackedViewIndex::history);
    index = to;
}

void StackedView::resizeEvent(QResizeEvent*) {
    playersTable->setGeometry(rect());
    historyView->setGeometry(rect());
}

}  // namespace pointlane
