// A permanent tool with two large icons, which says that it runs and then waits for its end.

#include <cstdio>

#include "Common/Platform/Application.h"
#include "Common/Platform/Image.h"
#include "Common/Platform/RunLoop.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataClientProvider.h"
#include "Common/UtiliaCommon/UtiliaCommon.h"

namespace {

constexpr std::uint32_t kSide = 512;

std::shared_ptr<utilia::platform::Image> icon(std::uint8_t shade) {
    utilia::platform::BitmapImageRep pixels{kSide, kSide, {}};
    pixels.rgba.resize(std::size_t{kSide} * kSide * 4);
    for (std::size_t i = 0; i < pixels.rgba.size(); ++i)
        pixels.rgba[i] = static_cast<std::uint8_t>(i * 31 + i / kSide + shade);
    return utilia::platform::Image::initWithBitmap(std::move(pixels));
}

}  // namespace

int main() {
    auto& application = utilia::platform::Application::sharedApplication();
    application.finishLaunching();
    utilia::ToolDataClientProvider& client = utilia::UtiliaCommon::toolDataClientProvider();
    client.setToolIcon(icon(0));
    client.setMenuIcon(icon(128));
    client.setMenuText("Ready");
    client.setToolStatus(utilia::kToolStatusPermanent);
    utilia::platform::MainQueue::async([] {
        std::puts("ready");
        std::fflush(stdout);
    });
    return application.run();
}
