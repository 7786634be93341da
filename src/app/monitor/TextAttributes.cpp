#include "monitor/TextAttributes.h"

#include <QFontMetricsF>
#include <QGuiApplication>
#include <QPainter>

namespace pointlane {

TextAttributes TextAttributes::system(int size, bool bold, const QColor& color) {
    QFont font = QGuiApplication::font();
    font.setPixelSize(size);
    font.setBold(bold);
    return TextAttributes{font, color};
}

QSizeF TextAttributes::size(const QString& text) const {
    const QFontMetricsF metrics(font);
    return {metrics.horizontalAdvance(text), metrics.height()};
}

void TextAttributes::draw(QPainter& painter, const QString& text, QPointF topLeft) const {
    const QFontMetricsF metrics(font);
    painter.setFont(font);
    painter.setPen(color);
    painter.drawText(QPointF(topLeft.x(), topLeft.y() + metrics.ascent()), text);
}

}  // namespace pointlane
