#include "Applications/Desktop/HighContrastStyle.h"

#include <algorithm>

#include <QPainter>
#include <QStyleOption>

namespace utilia::desktop {
namespace {

constexpr int kThin = 1;
constexpr int kThick = 3;
constexpr int kTitleGap = 3;

void drawLineAround(const QStyleOption& option, QPainter& painter, int width,
                    QPalette::ColorRole role = QPalette::WindowText) {
    const auto group = option.state & QStyle::State_Enabled ? QPalette::Active : QPalette::Disabled;
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing, false);
    painter.setBrush(Qt::NoBrush);
    painter.setPen(option.palette.color(group, role));
    for (int i = 0; i < width; ++i) painter.drawRect(option.rect.adjusted(i, i, -1 - i, -1 - i));
    painter.restore();
}

int widthFor(const QStyleOption& option) {
    return option.state & QStyle::State_HasFocus ? kThick : kThin;
}

}  // namespace

HighContrastStyle::HighContrastStyle() : QProxyStyle(QStringLiteral("fusion")) {}

void HighContrastStyle::drawPrimitive(PrimitiveElement element, const QStyleOption* option,
                                      QPainter* painter, const QWidget* widget) const {
    switch (element) {
    case PE_FrameFocusRect:
        return drawLineAround(*option, *painter, 2,
                              option->state & State_Selected ? QPalette::HighlightedText
                                                             : QPalette::WindowText);
    case PE_PanelButtonCommand:
        QProxyStyle::drawPrimitive(element, option, painter, widget);
        return drawLineAround(*option, *painter, widthFor(*option));
    case PE_Frame:
    case PE_FrameLineEdit:
    case PE_FrameMenu:
    case PE_IndicatorCheckBox:
    case PE_PanelLineEdit:
        QProxyStyle::drawPrimitive(element, option, painter, widget);
        return drawLineAround(*option, *painter, kThin);
    case PE_FrameGroupBox: {
        QStyleOption below(*option);  // its title
        below.rect.setTop(below.rect.top() + kTitleGap +
                          std::max(pixelMetric(PM_IndicatorHeight, option, widget),
                                   option->fontMetrics.height()));
        return drawLineAround(below, *painter, kThin);
    }
    default:
        QProxyStyle::drawPrimitive(element, option, painter, widget);
    }
}

void HighContrastStyle::drawControl(ControlElement element, const QStyleOption* option,
                                    QPainter* painter, const QWidget* widget) const {
    QProxyStyle::drawControl(element, option, painter, widget);
    if (element == CE_TabBarTabShape)
        drawLineAround(*option, *painter, option->state & State_Selected ? kThick : kThin);
    if (element == CE_ProgressBarGroove) drawLineAround(*option, *painter, kThin);
}

void HighContrastStyle::drawComplexControl(ComplexControl control,
                                           const QStyleOptionComplex* option, QPainter* painter,
                                           const QWidget* widget) const {
    QProxyStyle::drawComplexControl(control, option, painter, widget);
    if (control == CC_ComboBox || control == CC_SpinBox)
        drawLineAround(*option, *painter, widthFor(*option));
}

}  // namespace utilia::desktop
