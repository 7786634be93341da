#pragma once

#include <QRectF>
#include <QSizeF>
#include <QWidget>
#include <array>

namespace pointlane {

class DealTable;
class ElectionTable;
class GameTable;

// The history page: games, the chosen game's deals and the chosen deal's elections in three
// equal columns over a blue background. Main thread only.
class HistoryView final : public QWidget {
    Q_OBJECT

  public:
    explicit HistoryView(QWidget* parent = nullptr);

    // The three column frames for a view of size: each a third of the width; the last one
    // starts 0.1 to the left of the middle one's right edge and is 0.1 wider, so no seam of
    // background shows between them.
    static std::array<QRectF, 3> columnFrames(QSizeF size);

    // Lays the three lists out as columnFrames() of the current size says. (Hides
    // QWidget::updateGeometry, which this view does not need.)
    void updateGeometry();

    GameTable* gameTable;
    DealTable* dealTable;
    ElectionTable* electionTable;

  protected:
    void resizeEvent(QResizeEvent* event) override;
    void paintEvent(QPaintEvent* event) override;
};

}  // namespace pointlane
