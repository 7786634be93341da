#include "monitor/OneColumnTableRow.h"

#include <QPainter>
#include <QPainterPath>

namespace pointlane {

namespace {
QColor grey(float white) {
    return QColor::fromRgbF(white, white, white, 1.0f);
}
}  // namespace

const QColor& OneColumnTableRow::selectedStrokeColor() {
    static const QColor color = grey(1.0f);
    return color;
}

const QColor& OneColumnTableRow::selectedFillColor() {
    static const QColor color = grey(0.55f);
    return color;
}

const QColor& OneColumnTableRow::strokeColor() {
    static const QColor color = grey(0.65f);
    return color;
}

const QColor& OneColumnTableRow::fillColor() {
    static const QColor color = grey(0.25f);
    return color;
}

const QColor& OneColumnTableRow::backgroundColor() {
    static const QColor color = grey(0.25f);
    return color;
}

QRectF OneColumnTableRow::cardRect() const {
    return bounds_.adjusted(kCardInset, kCardInset, -kCardInset, -kCardInset);
}

void OneColumnTableRow::drawBackground(QPainter& painter) const {
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing, true);
    painter.fillRect(bounds_, backgroundColor());
    QPainterPath card;
    card.addRoundedRect(cardRect(), kCornerRadius, kCornerRadius);
    painter.fillPath(card, isSelected_ ? selectedFillColor() : fillColor());
    painter.setPen(QPen(isSelected_ ? selectedStrokeColor() : strokeColor(), 1.0));
    painter.drawPath(card);
    painter.restore();
}

}  // namespace pointlane
