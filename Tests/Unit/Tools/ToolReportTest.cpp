#include "Applications/TerminalAgent/ToolReport.h"

#include "Applications/Tools/Drawing/IconPainter.h"
#include "Tests/Support/TemporaryHome.h"

namespace utilia::agent {
namespace {

using Property = ToolDataAgentProvider::Property;

TEST(ToolReport, NamesEveryStatusThatHasAName) {
    EXPECT_EQ(describeStatus(0), "inactive");
    EXPECT_EQ(describeStatus(1), "active");
    EXPECT_EQ(describeStatus(2), "permanent");
    EXPECT_EQ(describeStatus(7), "7");
}

TEST(ToolReport, TellsTheSidesOfAnImageAndWhetherItIsATemplate) {
    EXPECT_EQ(describeImage(nullptr), "none");
    const auto image = tools::paintIcon({16, 32}, [](double, double) { return tools::Colour{}; });
    EXPECT_EQ(describeImage(image), "16x16, 32x32");
    image->setTemplate(true);
    EXPECT_EQ(describeImage(image), "16x16, 32x32 (template)");
}

TEST(ToolReport, TellsWhatIsKnownOfATool) {
    const test::TemporaryHome home;
    ToolDataAgentProvider tool;
    EXPECT_EQ(describeProperty(tool, Property::MenuText), "            menu text  none");
    tool.setMenuText("0:03");
    EXPECT_EQ(describeProperty(tool, Property::MenuText), "            menu text  \"0:03\"");
    EXPECT_EQ(describeProperty(tool, Property::ToolPort), "            port       not reached");
    EXPECT_EQ(describeProperty(tool, Property::WasLaunched), "");
}

}  // namespace
}  // namespace utilia::agent
