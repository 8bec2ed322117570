#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QImage>

#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"
#include "Tests/Support/RecordingPort.h"
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
    static bool hasColor(const QImage& image, const QColor& color, int from, int to) {
        for (int x = from; x < to; ++x) {
            for (int y = 0; y < image.height(); ++y) {
                if (image.pixelColor(x, y) == color) return true;
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
    // The picture is a disc in one colour: the same one, mirrored.
    const int middle = forth.height() / 2;
    const QColor disc = forth.pixelColor(14, middle);
    EXPECT_TRUE(hasColor(forth, disc, 0, width / 2));
    EXPECT_FALSE(hasColor(forth, disc, width / 2, width));
    EXPECT_FALSE(hasColor(back, disc, 0, width / 2));
    EXPECT_TRUE(hasColor(back, disc, width / 2, width));
    EXPECT_EQ(forth.pixelColor(14, middle), back.pixelColor(width - 1 - 14, middle));
    EXPECT_NE(forth.pixelColor(14, middle), QColor(Qt::white));
}

// Short lines are cut; the tip has all of it, and nothing that only developers read.
TEST_F(ToolRow, HasATipWithTheWholeText) {
    auto row = timer_.role("sayToolRow", {});
    ASSERT_EQ(row.waitForLine(), "ready");
    const test::RecordingPort timer(toolPortName(canonicalToolPath(timer_.path(), std::nullopt)));
    const std::string text = "a <text> " + std::string(200, '-') + " the end";
    for (const auto& message :
         {std::pair(100u, std::string("\2\0\0\0\0\0\0\0", 8)), std::pair(108u, text)}) {
        EXPECT_TRUE(test::eventually([&] {
            return test::RecordingPort::send(kAgentPortName, message.first,
                                             {timer_.path(), message.second});
        }));
    }
    const std::string tip = row.waitForLine().value_or("");
    EXPECT_THAT(tip, testing::HasSubstr("Timer|a &lt;text&gt; " + std::string(200, '-') +
                                        " the end|Running|Always shown"));
    EXPECT_THAT(tip, testing::Not(testing::HasSubstr(timer_.path())));
    EXPECT_EQ(row.waitForLine(), "Running|Always shown");
}

}  // namespace
}  // namespace utilia::agent
