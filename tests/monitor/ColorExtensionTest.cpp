#include "monitor/ColorExtension.h"

#include <gtest/gtest.h>

#include <QColor>

namespace pointlane {
namespace {

TEST(ColorExtensionTest, BrightnessScalesAndKeepsHue) {
    const QColor base = QColor::fromHsvF(0.6f, 0.5f, 0.5f, 0.8f);
    const QColor light = lighter(base, 0.5);
    EXPECT_NEAR(light.valueF(), 0.75, 0.01);
    EXPECT_NEAR(light.hueF(), 0.6, 0.01);
    EXPECT_NEAR(light.saturationF(), 0.5, 0.01);
    EXPECT_NEAR(light.alphaF(), 0.8, 0.01);
    EXPECT_NEAR(darker(base, 0.2).valueF(), 0.4, 0.01);
    EXPECT_NEAR(hueColorWithBrightnessAmount(base, 4).valueF(), 1.0, 0.01);
}

}  // namespace
}  // namespace pointlane
