// Tally: counts the clicks on its menu icon, and remembers how many there were.

#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

#include "Common/Platform/Application.h"
#include "Common/Platform/Image.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataClientProvider.h"
#include "Common/UtiliaCommon/UtiliaCommon.h"

using namespace utilia;

// Three strokes. A template is a mask, which the menu shows in its own colour.
static std::shared_ptr<platform::Image> paintMenuIcon() {
    platform::BitmapImageRep bitmap{16, 16, {}};
    for (unsigned y = 0; y < 16; ++y) {
        for (unsigned x = 0; x < 16; ++x) {
            const bool isStroke = y >= 2 && y < 14 && (x + 1) % 4 < 2 && x > 2 && x < 13;
            for (const unsigned component : {0u, 0u, 0u, isStroke ? 255u : 0u})
                bitmap.rgba.push_back(static_cast<std::uint8_t>(component));
        }
    }
    auto icon = platform::Image::initWithBitmap(std::move(bitmap));
    icon->setTemplate(true);
    return icon;
}

int main() {
    // From here on there is one instance. A second start ends in this call.
    auto& application = platform::Application::sharedApplication();
    application.finishLaunching();

    // What is set here is what the agent shows; nothing has to be there first.
    auto& client = UtiliaCommon::toolDataClientProvider();
    int count = std::atoi(client.menuText().value_or("0").c_str());  // of the last orderly end
    client.setToolStatus(kToolStatusPermanent);  // shown, and remembered, while it does not run
    client.setToolIcon(paintMenuIcon());
    client.setMenuIcon(paintMenuIcon());
    client.setMenuText(std::to_string(count));
    client.setClickMenuIconBlock([&] { client.setMenuText(std::to_string(++count)); });

    // Serves the agent until it, the user or the session ends the tool.
    return application.run();
}
