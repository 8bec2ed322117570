#include "Applications/Tools/ScreenCapture/PreviewView.h"

#include <algorithm>

#include <QPainter>

namespace utilia::tools {
namespace {

constexpr int kMargin = 20;
constexpr int kShadow = 8;
// Pages that are closer together than this would cover the picture with lines.
constexpr int kClosestPages = 6;

}  // namespace

PreviewView::PreviewView(QWidget* parent) : QWidget(parent) {
    setMinimumSize(320, 200);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
}

void PreviewView::setPicture(const QImage& picture) {
    picture_ = picture;
    scaled_ = {};
    update();
}

void PreviewView::setPageHeight(int pageHeight) {
    pageHeight_ = pageHeight;
    update();
}

QRect PreviewView::placeOfPicture() const {
    const QSize room = size() - QSize(2 * kMargin, 2 * kMargin);
    QSize shown = picture_.size();
    // Small pictures are shown as they are.
    if (shown.width() > room.width() || shown.height() > room.height())
        shown.scale(room, Qt::KeepAspectRatio);
    shown = shown.expandedTo(QSize(1, 1));
    return {QPoint((width() - shown.width()) / 2, (height() - shown.height()) / 2), shown};
}

void PreviewView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    const QColor window = palette().color(QPalette::Window);
    const bool isDark = window.lightness() < 128;
    painter.fillRect(rect(), window.darker(isDark ? 140 : 112));
    if (picture_.isNull()) return;

    const QRect place = placeOfPicture();
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(0, 0, 0, 7));
    for (int i = kShadow; i > 0; --i)
        painter.drawRoundedRect(place.adjusted(-i, -i + 2, i, i + 2), i, i);
    const qreal ratio = devicePixelRatioF();
    if (scaled_.size() != place.size() * ratio) {
        scaled_ = QPixmap::fromImage(
            picture_.scaled(place.size() * ratio, Qt::IgnoreAspectRatio, Qt::SmoothTransformation));
        scaled_.setDevicePixelRatio(ratio);
    }
    painter.fillRect(place, Qt::white);
    painter.drawPixmap(place.topLeft(), scaled_);

    if (pageHeight_ <= 0 || pageHeight_ >= picture_.height()) return;
    const double step = place.height() * double(pageHeight_) / picture_.height();
    if (step < kClosestPages) return;
    QPen cut(palette().color(QPalette::Highlight), 1.5, Qt::DashLine);
    painter.setPen(cut);
    for (double y = step; y < place.height() - 1; y += step) {
        const double at = place.top() + y;
        painter.drawLine(QPointF(place.left() - 8, at), QPointF(place.right() + 9, at));
    }
}

}  // namespace utilia::tools
