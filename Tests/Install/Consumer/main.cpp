// A tool as somebody else writes it: against the installed headers, loading the installed library.

#include <iostream>
#include <string>

#include "Common/Platform/Application.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/Image.h"
#include "Common/Platform/NotificationCenter.h"
#include "Common/Platform/RunLoop.h"
#include "Common/Platform/Workspace.h"
#include "Common/UtiliaCommon/Auxiliary/ImageExport.h"

using namespace utilia;
using namespace utilia::platform;

int main() {
    const Bundle* const bundle = Bundle::mainBundle();
    if (!bundle || !Bundle::frameworkBundle()) return 1;
    std::cout << "application " << bundle->bundleIdentifier().value_or("(nil)") << '\n'
              << "bundle " << bundle->bundlePath() << '\n'
              << "framework " << Bundle::frameworkBundle()->bundlePath() << '\n'
              << "language " << Bundle::frameworkBundle()->localizedStringForKey("en") << '\n';

    // Icons need the module, which is found beside the library.
    const auto drawn = Image::initWithBitmap({2, 1, {255, 0, 0, 255, 0, 255, 0, 128}});
    const auto bytes = drawn ? drawn->TIFFRepresentation() : std::nullopt;
    const auto image = bytes ? Image::initWithData(*bytes) : nullptr;
    if (!image) return 2;
    std::cout << "image " << image->pixelsWide() << 'x' << image->pixelsHigh() << '\n';

    // So do exports, which say why they fail.
    const auto page = exportedPDF(image, 0);
    const auto tall = Image::initWithBitmap({1, 65'501, Data(std::size_t{4} * 65'501, 255)});
    const auto refused = exportedBitmap(tall, BitmapImageFileType::Jpeg);
    if (!page || refused) return 3;
    std::cout << "page " << std::string(page->begin(), page->begin() + 8) << '\n'
              << "export " << refused.error().description << '\n';

    Application& application = Application::sharedApplication();
    auto& center = NotificationCenter::defaultCenter();
    const auto finished = center.addObserver(
        NSApplicationDidFinishLaunchingNotification, &application, [&](const void*) {
            std::cout << "running "
                      << RunningApplication::runningApplicationsWithBundleIdentifier(
                             "com.korvane.utilia.Consumer")
                             .size()
                      << '\n';
            MainQueue::async([&application] { application.terminate(); });
        });
    const auto ending = center.addObserver(NSApplicationWillTerminateNotification, &application,
                                           [](const void*) { std::cout << "will terminate\n"; });
    const int status = application.run();
    std::cout << "status " << status << '\n';
    return status;
}
