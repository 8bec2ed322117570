#include <algorithm>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Common/Platform/FileManager.h"
#include "Common/UtiliaCommon/Auxiliary/ImageExport.h"
#include "Common/UtiliaCommon/PersistentData/ToolPersistentDataReader.h"
#include "Tests/Process/Tools/RunningTool.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/ScreenReader.h"
#include "Tests/Support/VirtualDisplay.h"

// The tool Screen Capture in its bundle, on a display of its own, with a portal that is the test's.

namespace utilia::test {
namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;

constexpr const char* kBundle = test::places::kScreenCaptureBundle;
constexpr const char* kTitle = "Screen Capture";
constexpr const char* kSaveTitle = "Save the picture";

class ScreenCapture : public testing::Test {
protected:
    ScreenCapture() { fs::create_directories(desktop()); }

    ChildProcess start(const std::vector<std::string>& arguments,
                       std::map<std::string, std::string> environment = {}) {
        environment.insert(display_.environment().begin(), display_.environment().end());
        environment.insert({{"QT_QPA_PLATFORM", "xcb"}, {"HOME", session_.home().path()}});
        return session_.start(kBundle, arguments, environment);
    }
    fs::path desktop() const { return session_.home().path() / "Desktop"; }

    // A picture of so many pixels.
    std::string picture(int width, int height, const std::string& name = "picture.png") const {
        const std::string path = session_.home().path() / name;
        const auto made =
            runProgram({"convert", "-size", std::to_string(width) + "x" + std::to_string(height),
                        "gradient:navy-orange", path});
        EXPECT_EQ(made.status, 0) << made.text;
        return path;
    }
    // What the tool has saved on the desktop; "" when nothing comes.
    std::string savedFile(const std::string& extension) const {
        std::string found;
        EXPECT_TRUE(eventually([&] {
            for (const auto& entry : fs::directory_iterator(desktop())) {
                if (entry.path().extension() == extension) found = entry.path();
            }
            return !found.empty();
        }));
        return found;
    }
    // By the keyboard alone.
    void save() const {
        display_.waitForWindow(kTitle);
        display_.press({"alt+s"});
        display_.waitForWindow(kSaveTitle);
        display_.press({"Return"});
    }

    ToolSession session_;
    VirtualDisplay display_{session_.home().path()};
};

TEST_F(ScreenCapture, SavesAFileOfTheCommandLineAsPages) {
    auto tool = start({picture(300, 2500)});
    save();
    const auto info = runProgram({"pdfinfo", savedFile(".pdf")});
    EXPECT_EQ(info.status, 0) << info.text;
    EXPECT_THAT(info.text, HasSubstr("Pages:           3"));
    EXPECT_THAT(info.text, HasSubstr("300 x 1000 pts"));
}

TEST_F(ScreenCapture, SavesInTheFormatThatIsChosen) {
    auto tool = start({picture(120, 80)});
    display_.waitForWindow(kTitle);
    display_.press({"alt+f", "Down"});  // PNG
    save();
    const auto info = runProgram({"identify", "-format", "%m %w %h", savedFile(".png")});
    EXPECT_EQ(info.text, "PNG 120 80");
}

TEST_F(ScreenCapture, ShowsWhatThePortalTook) {
    auto services = session_.startServices({"screenshot=" + picture(200, 100, "a shot.png")});
    auto tool = start({});
    EXPECT_EQ(services.waitForLine(), "screenshot interactive=True");
    save();
    EXPECT_THAT(runProgram({"pdfinfo", savedFile(".pdf")}).text, HasSubstr("200 x 100 pts"));
}

TEST_F(ScreenCapture, ListensWhereAPortalOfOldAnswers) {
    auto services = session_.startServices({"screenshot=old:" + picture(200, 100)});
    auto tool = start({});
    EXPECT_EQ(services.waitForLine(), "screenshot interactive=True");
    save();
    EXPECT_THAT(runProgram({"pdfinfo", savedFile(".pdf")}).text, HasSubstr("200 x 100 pts"));
}

TEST_F(ScreenCapture, TakesAnotherPictureOnAClickAndFromItsWindow) {
    auto services = session_.startServices({"screenshot=" + picture(200, 100)});
    auto tool = start({});
    EXPECT_EQ(services.waitForLine(), "screenshot interactive=True");
    display_.waitForWindow(kTitle);
    ToolSession::click(kBundle);
    EXPECT_EQ(services.waitForLine(), "screenshot interactive=True");
    display_.waitForWindow(kTitle);
    display_.press({"alt+n"});
    EXPECT_EQ(services.waitForLine(), "screenshot interactive=True");
    display_.waitForWindow(kTitle);
}

TEST_F(ScreenCapture, HidesItsWindowFromThePicture) {
    auto services = session_.startServices({"screenshot=slow"});
    auto tool = start({picture(200, 100)});
    display_.waitForWindow(kTitle);
    ToolSession::click(kBundle);
    EXPECT_EQ(services.waitForLine(), "screenshot interactive=True");
    EXPECT_TRUE(eventually([&] { return !display_.hasWindow(kTitle); }));
    EXPECT_TRUE(tool.isRunning());
}

TEST_F(ScreenCapture, ComesBackWhenTheUserCancels) {
    auto services = session_.startServices({"screenshot=cancel"});
    auto tool = start({});
    EXPECT_EQ(services.waitForLine(), "screenshot interactive=True");
    display_.waitForWindow(kTitle);
    EXPECT_THAT(session_.log(), testing::Not(HasSubstr("Screen Capture:")));
}

TEST_F(ScreenCapture, ComesBackWhenThePortalEnds) {
    auto services = session_.startServices({"screenshot=slow"});
    auto tool = start({});
    EXPECT_EQ(services.waitForLine(), "screenshot interactive=True");
    services.kill();
    display_.waitForWindow(kTitle);
    // It ends before it has taken the request, or after.
    EXPECT_THAT(session_.log(),
                testing::AnyOf(HasSubstr("no picture: the desktop portal has ended"),
                               HasSubstr("no picture: Message recipient disconnected")));
}

TEST_F(ScreenCapture, SaysWhyThereIsNoPicture) {
    auto services = session_.startServices({"screenshot=deny"});
    auto tool = start({});
    display_.waitForWindow(kTitle);
    EXPECT_THAT(session_.log(), HasSubstr("no picture: the test does not allow it"));
}

TEST_F(ScreenCapture, OpensItsWindowWithoutAPortalAndWithoutABus) {
    auto tool = start({}, ToolSession::withoutBuses());
    display_.waitForWindow(kTitle);
    EXPECT_THAT(session_.log(), HasSubstr("Screen Capture: no picture: "));
}

TEST_F(ScreenCapture, TellsInTheMenuHowFarSavingIs) {
    auto tool = start({picture(1500, 4000)});
    display_.waitForWindow(kTitle);
    session_.askForMenu(kBundle);
    save();
    EXPECT_TRUE(session_.comesToSay("Saving: 0 %"));
    int last = 0;
    std::string text;
    for (; !(text = session_.nextText()).empty();) {
        int percent = -1;
        ASSERT_EQ(std::sscanf(text.c_str(), "Saving: %d %%", &percent), 1) << text;
        EXPECT_EQ(percent % 10, 0) << text;
        EXPECT_GT(percent, last) << text;
        last = percent;
    }
    EXPECT_EQ(last, 100) << "and then nothing, as it is over";
    EXPECT_EQ(runProgram({"qpdf", "--check", savedFile(".pdf")}).status, 0);
}

class SpokenCapture : public ScreenCapture {
protected:
    ChildProcess startSpeaking(const std::vector<std::string>& arguments) {
        auto tool = start(arguments, reader_.environment());
        display_.waitForWindow(kTitle);
        return tool;
    }
    std::vector<ScreenReader::Element> read() const {
        return reader_.read(kTitle, display_.environment());
    }
    // A label that is seen and begins with these words; "" when none comes.
    std::string labelWith(const std::string& words) const {
        std::string found;
        (void)eventually([&] {
            for (const auto& element : read()) {
                if (element.role == "label" && element.is("showing") &&
                    element.name.starts_with(words))
                    found = element.name;
            }
            return !found.empty();
        });
        return found;
    }
    ScreenReader reader_{session_.sessionBus(), session_.home().path()};
};

TEST_F(SpokenCapture, NamesEverythingThatCanBeUsed) {
    auto tool = startSpeaking({picture(200, 2500)});
    const auto elements = read();
    EXPECT_EQ(elements.front().role, "frame");
    EXPECT_THAT(flawsOf(elements), testing::IsEmpty());
    const auto one = [&](const std::string& name) {
        return std::find_if(elements.begin(), elements.end(),
                            [&](const auto& element) { return element.name == name; });
    };
    EXPECT_NE(one("Format:"), elements.end());
    EXPECT_NE(one("Page height:"), elements.end());
    ASSERT_NE(one("Picture"), elements.end());
    EXPECT_EQ(one("Picture")->description, "200 × 2500 px · Pages: 3");
}

TEST_F(SpokenCapture, StaysOpenWithAFileThatIsNoPictureAndHasNothingToSave) {
    const std::string path = session_.home().path() / "text.png";
    std::ofstream(path) << "no picture";
    auto tool = startSpeaking({path});
    const auto canBeSaved = [this]() -> std::optional<bool> {
        for (const auto& element : read()) {
            if (element.role == "push button" && element.name == "Save…")
                return !element.is("unavailable");
        }
        return std::nullopt;
    };
    ASSERT_TRUE(eventually([&] { return canBeSaved().has_value(); }));
    EXPECT_EQ(canBeSaved(), false);
    display_.press({"alt+s"});
    // Heard once more: the window is still the active one, and the key came before this.
    display_.press({"alt+f"});
    EXPECT_EQ(canBeSaved(), false);
    EXPECT_FALSE(display_.hasWindow(kSaveTitle)) << "there is nothing to save";
    EXPECT_TRUE(tool.isRunning());
}

TEST_F(SpokenCapture, SaysThatAndWhyAPictureCannotBeSaved) {
    auto tool = startSpeaking({picture(200, 100)});
    display_.press({"alt+s"});
    display_.waitForWindow(kSaveTitle);
    fs::remove(desktop());
    display_.press({"Return"});
    display_.waitForWindow(kTitle);
    EXPECT_THAT(labelWith("Screen Capture "),
                AllOf(HasSubstr(".pdf cannot be saved. "), HasSubstr(desktop().string()),
                      HasSubstr("No such file or directory")));
    // It is still there, and can be saved elsewhere.
    fs::create_directory(desktop());
    save();
    EXPECT_THAT(labelWith("Saved as "), testing::EndsWith(".pdf"));
    EXPECT_FALSE(savedFile(".pdf").empty());
}

TEST_F(SpokenCapture, SaysWhyAFormatCannotHoldThePicture) {
    const std::string path = session_.home().path() / "tall.png";
    const auto image =
        platform::Image::initWithBitmap({2, 65'501, Data(std::size_t{2} * 65'501 * 4, 255)});
    const auto tall = exportedBitmap(image, platform::BitmapImageFileType::Png);
    ASSERT_TRUE(tall);
    ASSERT_TRUE(platform::FileManager::writeToFile(path, *tall));
    auto tool = startSpeaking({path});
    display_.press({"alt+f", "Down", "Down"});  // JPEG
    save();
    EXPECT_THAT(labelWith("Screen Capture "),
                AllOf(HasSubstr(".jpg cannot be saved. "),
                      testing::EndsWith("JPEG holds at most 65,500 pixels a side")));
    EXPECT_TRUE(fs::is_empty(desktop()));
}

TEST_F(SpokenCapture, OpensTheFileOfASecondStart) {
    auto services = session_.startServices({"screenshot=" + picture(200, 100)});
    auto tool = startSpeaking({});
    picture(77, 33, "other.png");
    const fs::path before = fs::current_path();
    fs::current_path(session_.home().path());
    auto second = start({"other.png"});
    fs::current_path(before);
    EXPECT_EQ(second.waitForExit(), 0);
    // It has the name by now, but the picture perhaps not yet.
    ASSERT_NE(labelWith("77 × 33 px"), "");
    save();
    EXPECT_THAT(runProgram({"pdfinfo", savedFile(".pdf")}).text, HasSubstr("77 x 33 pts"));
}

TEST_F(ScreenCapture, EndsWithItsWindowAndStaysListed) {
    auto tool = start({picture(300, 200)});
    display_.waitForWindow(kTitle);
    display_.press({"alt+F4"});
    EXPECT_EQ(tool.waitForExit(), 0);
    const ToolPersistentDataReader reader("Screen Capture.app", "com.korvane.utilia.ScreenCapture");
    EXPECT_TRUE(reader.isPermanent());
    EXPECT_EQ(reader.menuText(), std::nullopt);
}

TEST_F(ScreenCapture, SaysThatThereIsNoDisplay) {
    auto tool = session_.start(kBundle);
    EXPECT_EQ(tool.waitForExit(), 1);
    EXPECT_THAT(session_.log(), HasSubstr("screen-capture: there is no display"));
}

}  // namespace
}  // namespace utilia::test
