#pragma once

#include <cstdint>
#include <memory>

#include <QColor>
#include <QIcon>
#include <QImage>

#include "Applications/Agent/Model/ToolEntry.h"

namespace utilia::agent {

// Pictures of tools for the screen.
//
// A template image is a mask: it is painted in `color`, which follows a light or dark surrounding. Every other image
// keeps its colours.

// The representation that fits `side` pixels best, scaled into a square of that side. Null for no usable picture.
QImage pictureOf(platform::Image* image, int side, const QColor& color);

// What stands for the tool in menus and lists: its tool icon, else its menu icon, else, as long as it never ran, the icon
// that its bundle names, else its first letter on a disc whose colour follows from its identifier.
QImage pictureOf(const ToolEntry& tool, int side, const QColor& color);
// Another number for a bundle that was replaced where it is, and may name another icon; 0 without one.
std::int64_t bundleDate(const ToolEntry& tool);

// The mark of the agent itself: for windows in colour, and as a mask for panels.
QIcon agentIcon();
QImage agentMark(int side, const QColor& color);

}  // namespace utilia::agent
