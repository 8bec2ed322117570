#include "Applications/AlertHelper/StyleIcon.h"

#include <cmath>
#include <numbers>

#include <QPainterPath>
#include <QPixmap>
#include <QPolygonF>

namespace utilia::alert {
namespace {

// All shapes are drawn in a square from -1 to 1.

QPainterPath octagon(double radius) {
    QPolygonF corners;
    for (int i = 0; i < 8; ++i) {
        const double angle = std::numbers::pi / 8 * (2 * i + 1);
        corners << QPointF(radius * std::cos(angle), radius * std::sin(angle));
    }
    QPainterPath path;
    path.addPolygon(corners);
    path.closeSubpath();
    return path;
}

QPainterPath triangle() {
    QPainterPath path;
    path.addPolygon(QPolygonF({QPointF(0, -0.78), QPointF(0.84, 0.74), QPointF(-0.84, 0.74)}));
    path.closeSubpath();
    return path;
}

QPainterPath disc(double radius) {
    QPainterPath path;
    path.addEllipse(QPointF(0, 0), radius, radius);
    return path;
}

void fill(QPainter& painter, const QPainterPath& path, const QColor& top, const QColor& bottom,
          double rounding) {
    QLinearGradient gradient(0, -1, 0, 1);
    gradient.setColorAt(0, top);
    gradient.setColorAt(1, bottom);
    painter.setBrush(gradient);
    painter.setPen(QPen(QBrush(gradient), rounding, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    painter.drawPath(path);
}

// A stroke and a dot, "!" or upside down "i".
void drawMark(QPainter& painter, const QColor& color, double dot, double from, double to,
              double width) {
    painter.setPen(QPen(color, width, Qt::SolidLine, Qt::RoundCap));
    painter.drawLine(QPointF(0, from), QPointF(0, to));
    painter.setPen(Qt::NoPen);
    painter.setBrush(color);
    painter.drawEllipse(QPointF(0, dot), width * 0.62, width * 0.62);
}

}  // namespace

void paintStyleIcon(QPainter& painter, const QRectF& area, Style style) {
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.translate(area.center());
    painter.scale(area.width() / 2, area.height() / 2);
    switch (style) {
    case Style::Warning:
        fill(painter, triangle(), QColor(0xff, 0xc8, 0x3d), QColor(0xf2, 0xa3, 0x0f), 0.24);
        drawMark(painter, QColor(0x4a, 0x33, 0x00), 0.56, -0.3, 0.22, 0.17);
        break;
    case Style::Informational:
        fill(painter, disc(0.9), QColor(0x4f, 0x9c, 0xf7), QColor(0x22, 0x6b, 0xd2), 0.02);
        drawMark(painter, Qt::white, -0.46, -0.06, 0.48, 0.2);
        break;
    case Style::Critical:
        fill(painter, octagon(0.9), QColor(0xf0, 0x5b, 0x53), QColor(0xc9, 0x2a, 0x2f), 0.1);
        drawMark(painter, Qt::white, 0.5, -0.5, 0.12, 0.2);
        break;
    }
    painter.restore();
}

QIcon styleIcon(Style style) {
    QIcon icon;
    for (const int size : {16, 24, 32, 48, 64, 128}) {
        QPixmap pixmap(size, size);
        pixmap.fill(Qt::transparent);
        QPainter painter(&pixmap);
        paintStyleIcon(painter, QRectF(0, 0, size, size), style);
        painter.end();
        icon.addPixmap(pixmap);
    }
    return icon;
}

StyleIconView::StyleIconView(Style style, int size, QWidget* parent)
    : QWidget(parent), style_(style) {
    setFixedSize(size, size);
}

void StyleIconView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    paintStyleIcon(painter, QRectF(rect()), style_);
}

}  // namespace utilia::alert
