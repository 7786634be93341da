#pragma once

#include <QWidget>

#include "monitor/StackedViewIndex.h"

namespace pointlane {

class HistoryView;
class PlayersTable;

// Holds the players page and the history page, both filling it, and shows one at a time.
// Main thread only.
class StackedView final : public QWidget {
    Q_OBJECT

  public:
    explicit StackedView(QWidget* parent = nullptr);

    // Shows the page for index and hides the other.
    void changeView(StackedViewIndex to);

    PlayersTable* playersTable;
    HistoryView* historyView;
    StackedViewIndex index = StackedViewIndex::players;

  protected:
    void resizeEvent(QResizeEvent* event) override;
};

}  // namespace pointlane
