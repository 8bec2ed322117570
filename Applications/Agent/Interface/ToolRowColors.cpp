#include "Applications/Agent/Interface/ToolRowColors.h"

#include "Applications/Desktop/DesktopPalette.h"

namespace utilia::agent {
namespace {

// Between the two, near enough to the text to be read easily.
QColor softened(const QColor& text, const QColor& ground) {
    const auto mix = [](int a, int b) { return (a * 72 + b * 28) / 100; };
    return {mix(text.red(), ground.red()), mix(text.green(), ground.green()),
            mix(text.blue(), ground.blue())};
}

}  // namespace

ToolRowColors rowColors(const QPalette& palette, QPalette::ColorGroup group, bool isSelected) {
    if (isSelected) {
        const QColor text = palette.color(group, QPalette::HighlightedText);
        return {palette.color(group, QPalette::Highlight), text, text, text};
    }
    const QColor ground = palette.color(group, QPalette::Base);
    const QColor text = palette.color(group, QPalette::Text);
    const QColor green =
        desktop::isDark(palette) ? QColor(0x4f, 0xc9, 0x80) : QColor(0x1c, 0x7d, 0x43);
    return {ground, text, softened(text, ground), green};
}

}  // namespace utilia::agent
