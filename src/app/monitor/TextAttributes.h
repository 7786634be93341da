#pragma once

#include <QColor>
#include <QFont>
#include <QPointF>
#include <QSizeF>
#include <QString>

class QPainter;

namespace pointlane {

// The light grey of unselected list texts: two thirds white, the desktop's classic light grey.
inline const QColor kLightGrey{0xAA, 0xAA, 0xAA};

// A font and a foreground colour: how one piece of list text is drawn. Value type; build and
// use on the main thread (fonts need the application).
struct TextAttributes {
    QFont font;
    QColor color;

    // The application's system font at `size` logical pixels (one desktop point each).
    static TextAttributes system(int size, bool bold, const QColor& color);

    // Width and line height of text in this font.
    QSizeF size(const QString& text) const;
    // Draws text with its top-left corner at topLeft.
    void draw(QPainter& painter, const QString& text, QPointF topLeft) const;
};

}  // namespace pointlane
