#pragma once

#include <QColor>

namespace pointlane {

// Brightness helpers for colours. Pure functions, any thread.

// The colour with the same hue, saturation and alpha and its brightness multiplied by amount
// (QColor keeps the value within its own range).
QColor hueColorWithBrightnessAmount(const QColor& color, double amount);
// Brightness times 1 + amount.
QColor lighter(const QColor& color, double amount);
// Brightness times 1 - amount.
QColor darker(const QColor& color, double amount);

}  // namespace pointlane
