#include "Applications/Desktop/DesktopPalette.h"

#include <algorithm>
#include <cmath>

namespace utilia::desktop {
namespace {

double luminance(const QColor& color) {
    const auto linear = [](double part) {
        return part <= 0.04045 ? part / 12.92 : std::pow((part + 0.055) / 1.055, 2.4);
    };
    return 0.2126 * linear(color.redF()) + 0.7152 * linear(color.greenF()) +
           0.0722 * linear(color.blueF());
}

struct Colors {
    QColor window;
    QColor lists;
    QColor buttons;
    QColor text;
    QColor faint;
    QColor selection;
    QColor selected;
    QColor link;
};

QPalette paletteOf(const Colors& colors) {
    QPalette palette(colors.buttons, colors.window);
    palette.setColor(QPalette::Base, colors.lists);
    palette.setColor(QPalette::AlternateBase, colors.window);
    for (const auto role :
         {QPalette::WindowText, QPalette::Text, QPalette::ButtonText, QPalette::ToolTipText}) {
        palette.setColor(role, colors.text);
        palette.setColor(QPalette::Disabled, role, colors.faint);
    }
    palette.setColor(QPalette::ToolTipBase, colors.buttons);
    palette.setColor(QPalette::PlaceholderText, colors.faint);
    palette.setColor(QPalette::Highlight, colors.selection);
    palette.setColor(QPalette::HighlightedText, colors.selected);
    palette.setColor(QPalette::Link, colors.link);
    return palette;
}

}  // namespace

double contrastRatio(const QColor& one, const QColor& other) {
    const auto [darker, lighter] = std::minmax({luminance(one), luminance(other)});
    return (lighter + 0.05) / (darker + 0.05);
}

bool isDark(const QPalette& palette) {
    return palette.color(QPalette::Window).lightness() <
           palette.color(QPalette::WindowText).lightness();
}

QPalette darkPalette() {
    return paletteOf({.window = QColor(0x2a, 0x2b, 0x2e),
                      .lists = QColor(0x20, 0x21, 0x23),
                      .buttons = QColor(0x3c, 0x3e, 0x43),
                      .text = QColor(0xf0, 0xf0, 0xf0),
                      .faint = QColor(0x8c, 0x8e, 0x92),
                      .selection = QColor(0x2f, 0x6f, 0xd0),
                      .selected = Qt::white,
                      .link = QColor(0x7a, 0xb4, 0xff)});
}

QPalette highContrastPalette(bool isDark) {
    if (isDark)
        return paletteOf({.window = Qt::black,
                          .lists = Qt::black,
                          .buttons = Qt::black,
                          .text = Qt::white,
                          .faint = QColor(0xa6, 0xa6, 0xa6),
                          .selection = QColor(0xff, 0xe0, 0x4a),
                          .selected = Qt::black,
                          .link = QColor(0xff, 0xe0, 0x4a)});
    return paletteOf({.window = Qt::white,
                      .lists = Qt::white,
                      .buttons = Qt::white,
                      .text = Qt::black,
                      .faint = QColor(0x59, 0x59, 0x59),
                      .selection = QColor(0x00, 0x30, 0x8f),
                      .selected = Qt::white,
                      .link = QColor(0x00, 0x30, 0x8f)});
}

QPalette legible(QPalette palette) {
    for (const auto group : {QPalette::Active, QPalette::Inactive}) {
        const QColor text = palette.color(group, QPalette::HighlightedText);
        QColor ground = palette.color(group, QPalette::Highlight);
        const bool isLight = luminance(text) > luminance(ground);
        for (int step = 0; step < 100 && contrastRatio(text, ground) < kEnoughContrast; ++step)
            ground = isLight ? ground.darker(105) : ground.lighter(105);
        palette.setColor(group, QPalette::Highlight, ground);
    }
    return palette;
}

}  // namespace utilia::desktop
