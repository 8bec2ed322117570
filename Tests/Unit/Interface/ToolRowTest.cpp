#include <gtest/gtest.h>

#include <QImage>
#include <QListView>
#include <QPainter>
#include <QStandardItemModel>

#include "Applications/Agent/Interface/ToolItemModel.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Unit/Interface/OffscreenApplication.h"

// One tool in the list, as it is painted.

namespace utilia::agent {
namespace {

constexpr int kWidth = 400;

class ToolRow : public testing::Test {
protected:
    ToolRow() {
        timer_.install("none");
        tools_.reload();
    }
    QImage paint(Qt::LayoutDirection direction) {
        QStyleOptionViewItem option;
        option.direction = direction;
        option.palette = QApplication::style()->standardPalette();
        option.state = QStyle::State_Enabled | QStyle::State_Active;
        option.font = QApplication::font();
        option.fontMetrics = QFontMetrics(option.font);
        ToolItemModel model(tools_, nullptr);
        const ToolItemDelegate delegate;
        option.rect = QRect(0, 0, kWidth, delegate.sizeHint(option, model.index(0)).height());
        QImage image(option.rect.size(), QImage::Format_RGB32);
        image.fill(Qt::white);
        QPainter painter(&image);
        delegate.paint(&painter, option, model.index(0));
        return image;
    }
    // The share of columns from `from` to `to` in which anything is painted.
    static bool hasInk(const QImage& image, int from, int to) {
        for (int x = from; x < to; ++x) {
            for (int y = 0; y < image.height(); ++y) {
                if (image.pixelColor(x, y) != QColor(Qt::white)) return true;
            }
        }
        return false;
    }

    test::TemporaryHome home_;
    test::TestBundle timer_{home_,
                            {.name = "Timer", .bundleIdentifier = "com.korvane.utilia.Timer"}};
    test::OffscreenApplication application_;
    ToolList tools_;
};

TEST_F(ToolRow, BeginsWithThePictureWhereTheLayoutBegins) {
    ASSERT_EQ(tools_.entries().size(), 1u);
    const QImage forth = paint(Qt::LeftToRight);
    EXPECT_TRUE(hasInk(forth, 0, kWidth / 2));
    EXPECT_FALSE(hasInk(forth, kWidth / 2, kWidth));
    const QImage back = paint(Qt::RightToLeft);
    EXPECT_FALSE(hasInk(back, 0, kWidth / 2));
    EXPECT_TRUE(hasInk(back, kWidth / 2, kWidth));
    // The picture is a disc in one colour: the same one, mirrored.
    const int middle = forth.height() / 2;
    EXPECT_EQ(forth.pixelColor(14, middle), back.pixelColor(kWidth - 1 - 14, middle));
    EXPECT_NE(forth.pixelColor(14, middle), QColor(Qt::white));
}

}  // namespace
}  // namespace utilia::agent
