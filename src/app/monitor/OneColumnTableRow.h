#pragma once

#include <QColor>
#include <QRectF>

class QPainter;

namespace pointlane {

// The background of one row: a rounded grey card on the table's background, drawn brighter
// when the table has the row selected. Made for each painting. Main thread only.
class OneColumnTableRow final {
  public:
    static constexpr double kHeight = 55.0;
    static constexpr double kCardInset = 2.5;
    static constexpr double kCornerRadius = 6.0;

    static const QColor& selectedStrokeColor();
    static const QColor& selectedFillColor();
    static const QColor& strokeColor();
    static const QColor& fillColor();
    static const QColor& backgroundColor();

    OneColumnTableRow(QRectF bounds, bool selected) : bounds_(bounds), isSelected_(selected) {}

    bool isSelected() const { return isSelected_; }
    QRectF cardRect() const;
    // Paints the whole row: background, then the card filled and outlined.
    void drawBackground(QPainter& painter) const;

  private:
    QRectF bounds_;
    bool isSelected_;
};

}  // namespace pointlane
