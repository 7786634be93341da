#include "monitor/ColorExtension.h"

#include <algorithm>

namespace pointlane {

QColor hueColorWithBrightnessAmount(const QColor& color, double amount) {
    float hue = 0;
    float saturation = 0;
    float brightness = 0;
    float alpha = 0;
    color.toHsv().getHsvF(&hue, &saturation, &brightness, &alpha);
    const double scaled = std::clamp(static_cast<double>(brightness) * amount, 0.0, 1.0);
    return QColor::fromHsvF(hue, saturation, static_cast<float>(scaled), alpha);
}

QColor lighter(const QColor& color, double amount) {
    return hueColorWithBrightnessAmount(color, 1.0 + amount);
}

QColor darker(const QColor& color, double amount) {
    return hueColorWithBrightnessAmount(color, 1.0 - amount);
}

}  // namespace pointlane
