#pragma once

#include <QIcon>
#include <QPainter>
#include <QRectF>
#include <QWidget>

#include "Applications/AlertHelper/Question.h"

namespace utilia::alert {

// The sign of a style: an amber triangle, a blue disc, a red octagon. Drawn rather than taken from a theme, so that
// it is there on every desktop, and sharp at every scale.
void paintStyleIcon(QPainter& painter, const QRectF& area, Style style);
QIcon styleIcon(Style style);

class StyleIconView final : public QWidget {
public:
    StyleIconView(Style style, int size, QWidget* parent);

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    Style style_;
};

}  // namespace utilia::alert
