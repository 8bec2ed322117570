// A tool without a window: an icon and a text in the agent's menu. On SIGUSR1 it begins to change its
// text each second.

#include <csignal>
#include <memory>
#include <string>

#include <glib-unix.h>

#include "Common/Platform/Application.h"
#include "Common/Platform/Image.h"
#include "Common/Platform/RunLoop.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataClientProvider.h"
#include "Common/UtiliaCommon/UtiliaCommon.h"

namespace {

using namespace utilia;

std::shared_ptr<platform::Image> icon() {
    constexpr std::uint32_t kSide = 32;
    platform::BitmapImageRep pixels{kSide, kSide, {}};
    pixels.rgba.resize(std::size_t{kSide} * kSide * 4);
    for (std::size_t i = 0; i < pixels.rgba.size(); ++i)
        pixels.rgba[i] = static_cast<std::uint8_t>(i * 31 + i / kSide);
    return platform::Image::initWithBitmap(std::move(pixels));
}

Handle ticking;

int beginToTick(void*) {
    ticking = platform::Timer::scheduledTimer(std::chrono::seconds(1), true, [] {
        static int seconds = 0;
        UtiliaCommon::toolDataClientProvider().setMenuText(std::to_string(++seconds) + " s");
    });
    return G_SOURCE_CONTINUE;
}

}  // namespace

int main() {
    auto& application = platform::Application::sharedApplication();
    application.finishLaunching();
    ToolDataClientProvider& client = UtiliaCommon::toolDataClientProvider();
    client.setToolStatus(kToolStatusPermanent);
    client.setToolIcon(icon());
    client.setMenuIcon(icon());
    client.setMenuText("ready");
    g_unix_signal_add(SIGUSR1, beginToTick, nullptr);
    const int status = application.run();
    ticking = {};
    return status;
}
