#pragma once

#include <QProxyStyle>

namespace utilia::desktop {

// The toolkit's own style with a line in the colour of texts around everything that can be used or holds something: its
// usual lines are shades of the window's colour, which are not seen on black and hardly on white. What has the keyboard
// has a thick line.
class HighContrastStyle final : public QProxyStyle {
public:
    HighContrastStyle();

    void drawPrimitive(PrimitiveElement element, const QStyleOption* option, QPainter* painter,
                       const QWidget* widget) const override;
    void drawControl(ControlElement element, const QStyleOption* option, QPainter* painter,
                     const QWidget* widget) const override;
    void drawComplexControl(ComplexControl control, const QStyleOptionComplex* option,
                            QPainter* painter, const QWidget* widget) const override;
};

}  // namespace utilia::desktop
