#pragma once

#include <QColor>
#include <QPalette>

namespace utilia::agent {

// The colours of one tool in the list.
struct ToolRowColors {
    QColor ground;
    QColor strong;  // its name
    QColor soft;    // what else is said of it
    QColor lamp;    // the mark of a tool that runs
};

// All follow from the palette, so that dark colours and high contrast are kept.
ToolRowColors rowColors(const QPalette& palette, QPalette::ColorGroup group, bool isSelected);

}  // namespace utilia::agent
