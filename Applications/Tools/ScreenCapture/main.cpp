// Screen Capture: takes a picture of the screen, or opens an image file that is named on the command line, and saves it as
// a document of pages or in a bitmap format. Permanent, but it runs only while its window is open.

#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QIcon>
#include <QLocale>

#include "Applications/CommandLine.h"
#include "Applications/Desktop/BusThread.h"
#include "Applications/Desktop/DesktopColors.h"
#include "Applications/Desktop/ToolkitBus.h"
#include "Applications/Tools/Drawing/QtPictures.h"
#include "Applications/Tools/Drawing/ToolText.h"
#include "Applications/Tools/ScreenCapture/CaptureWindow.h"
#include "Applications/Tools/ScreenCapture/ScreenshotPortal.h"
#include "Applications/Tools/ScreenCapture/ViewfinderPicture.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/Application.h"
#include "Common/Platform/NotificationCenter.h"
#include "Common/UtiliaCommon/CEP/CEPLog.h"
#include "Common/UtiliaCommon/StartUpVerdict.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataClientProvider.h"
#include "Common/UtiliaCommon/UtiliaCommon.h"
#include "Integration/Qt/QtHost.h"

namespace {

using namespace utilia;
using tools::ScreenshotPortal;
using tools::toolText;

constexpr const char* kHelp = R"(Usage: screen-capture [FILE]

Takes a picture of the screen, or opens the one in FILE, in a window that saves it as a document or
an image.

  --turn-off  end at once, with nothing started
  --help      this text
  --version   the version
)";

class ScreenCaptureTool final : public platform::ApplicationDelegate {
public:
    explicit ScreenCaptureTool(const std::vector<std::string>& arguments) {
        client_.setToolIcon(tools::paintIcon({32, 64, 128}, tools::viewfinderIcon));
        const auto menuIcon = tools::paintIcon({16, 22, 24, 32, 48}, tools::viewfinderMask);
        menuIcon->setTemplate(true);
        client_.setMenuIcon(menuIcon);
        client_.setClickMenuIconBlock([this] { take({}); });
        client_.setToolStatus(kToolStatusPermanent);
        take(arguments);
    }

    // A second start: with a file to open, or for another picture.
    bool applicationShouldHandleReopen(bool, const std::vector<std::string>& arguments) override {
        take(arguments);
        return true;
    }

private:
    void take(const std::vector<std::string>& arguments) {
        if (arguments.empty()) return capture();
        window_.open(QFile::decodeName(arguments.front().c_str()));
        show();
    }

    // Without the window, which is not what is to be seen.
    void capture() {
        window_.hide();
        portal_.capture();
    }

    void captured(const ScreenshotPortal::Answer& answer) {
        switch (answer.outcome) {
        case ScreenshotPortal::Outcome::Taken:
            window_.open(QFile::decodeName(answer.text.c_str()));
            break;
        case ScreenshotPortal::Outcome::Cancelled:
            window_.showMessage(QString::fromStdString(toolText("No picture was taken.")));
            break;
        case ScreenshotPortal::Outcome::Failed:
            KULogVariadic("Screen Capture: no picture: %@", answer.text);
            window_.showMessage(QString::fromStdString(
                toolText("Nothing here can take pictures of the screen. Open a picture instead.")));
            break;
        }
        show();
    }

    void show() {
        window_.show();
        integration::QtHost::activate();
    }

    // Every tenth part, in the menu.
    void showProgress(std::optional<int> percent) {
        const std::string text =
            percent ? toolText("Saving: %@", std::to_string(*percent / 10 * 10) + " %") : "";
        if (client_.menuText() != text) client_.setMenuText(text);
    }

    // Before the client, which stores what the agent shows from the end on.
    Handle end_ = platform::NotificationCenter::defaultCenter().addObserver(
        platform::NSApplicationWillTerminateNotification, nullptr,
        [this](const void*) { client_.setMenuText(std::nullopt); });
    ToolDataClientProvider& client_ = UtiliaCommon::toolDataClientProvider();
    ScreenshotPortal portal_{[this](const auto& answer) { captured(answer); }};
    tools::CaptureWindow window_{
        {[this] { capture(); }, [this](std::optional<int> percent) { showProgress(percent); }},
        client_.getToolSpecialDirectory(ToolSpecialDirectory::ToolDesktopDirectory)};
};

// A file that a second start names is read by the first, which has another folder.
std::vector<std::string> withFullPaths(std::vector<std::string> files) {
    for (std::string& file : files) {
        file = QFile::encodeName(QDir::current().absoluteFilePath(QFile::decodeName(file.c_str())))
                   .toStdString();
    }
    return files;
}

}  // namespace

int main(int count, char** words) {
    const auto line = CommandLine::read({.program = "screen-capture",
                                         .help = kHelp,
                                         .options = {kTurnOffArgument},
                                         .toolkitOptions = kQtOptions,
                                         .maximumOperands = 1},
                                        count, words);
    if (line.exitStatus) return *line.exitStatus;
    if (qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") &&
        qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        std::fputs("screen-capture: there is no display to show a window on\n", stderr);
        return EXIT_FAILURE;
    }
    desktop::ToolkitBus bus;
    QApplication application(count, words);
    bus.settle();
    const std::vector<std::string> arguments = withFullPaths(line.operands);
    platform::Application::sharedApplication().setHandedOverArguments(arguments);
    integration::QtHost host;
    if (const auto* const bundle = platform::Bundle::mainBundle())
        QApplication::setLayoutDirection(
            QLocale(QString::fromStdString(bundle->preferredLocalization())).textDirection());
    QApplication::setWindowIcon(
        QIcon(tools::pixmapOf(*tools::paintIcon({128}, tools::viewfinderIcon))));
    desktop::DesktopColors colors;
    colors.follow();
    ScreenCaptureTool tool(arguments);
    platform::Application::sharedApplication().setDelegate(&tool);
    CEPLog::sharedInstance().log("Start");
    const int status = host.exec();
    platform::Application::sharedApplication().setDelegate(nullptr);
    CEPLog::sharedInstance().log("Quit");
    return desktop::endedMain(status);
}
