#pragma once

#include <QColor>
#include <QPalette>

namespace utilia::desktop {

// Texts keep at least kEnoughContrast to what is behind them, and kHighContrast for who asks for high contrast.
inline constexpr double kEnoughContrast = 4.5;
inline constexpr double kHighContrast = 7;

// From 1 (the same luminance) to 21 (black and white), as the Web Content Accessibility Guidelines count it.
double contrastRatio(const QColor& one, const QColor& other);

bool isDark(const QPalette& palette);

QPalette darkPalette();
QPalette highContrastPalette(bool isDark);
// The palette with a ground of selected texts that is dark, or light, enough for them.
QPalette legible(QPalette palette);

}  // namespace utilia::desktop
