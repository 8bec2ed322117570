#include <gtest/gtest.h>

#include <QImage>

#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"

// One tool in the list, as it is painted.

namespace utilia::agent {
namespace {

class ToolRow : public testing::Test {
protected:
    ToolRow() { timer_.install("none"); }

    QImage paint(std::vector<std::string> how = {}) {
        const std::string file = home_.path() / "row.png";
        how.insert(how.begin(), file);
        EXPECT_EQ(timer_.role("paintToolRow", how).waitForExit(), 0);
        return QImage(QString::fromStdString(file));
    }
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
};

TEST_F(ToolRow, BeginsWithThePictureWhereTheLayoutBegins) {
    const QImage forth = paint();
    const QImage back = paint({"mirrored"});
    const int width = forth.width();
    EXPECT_TRUE(hasInk(forth, 0, width / 2));
    EXPECT_FALSE(hasInk(forth, width / 2, width));
    EXPECT_FALSE(hasInk(back, 0, width / 2));
    EXPECT_TRUE(hasInk(back, width / 2, width));
    // The picture is a disc in one colour: the same one, mirrored.
    const int middle = forth.height() / 2;
    EXPECT_EQ(forth.pixelColor(14, middle), back.pixelColor(width - 1 - 14, middle));
    EXPECT_NE(forth.pixelColor(14, middle), QColor(Qt::white));
}

}  // namespace
}  // namespace utilia::agent
