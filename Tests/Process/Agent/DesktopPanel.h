#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/PrivateBus.h"
#include "Tests/Support/VirtualDisplay.h"

namespace utilia::agent {

// The panel of a real desktop environment (Xfce) with nothing in it but its place for status icons, on a display and a
// session bus of the test's. Its user looks at the screen and uses mouse and keyboard.
class DesktopPanel final {
public:
    enum class Colors { Light, Dark };

    // Prepares its settings, in a folder of the test's; it starts with start().
    DesktopPanel(const test::VirtualDisplay& display, const test::PrivateBus& bus,
                 const std::filesystem::path& folder, Colors colors = Colors::Light);

    // Answers when it is on the screen and takes status icons.
    void start();
    // Answers when nobody takes status icons any more and the screen is free of it.
    void kill();
    // What it says of the status icons that are registered.
    std::string registeredItems() const;

    // What is seen where status icons are, in places and colours of the screen.
    struct Icon {
        int left = 0, right = 0, top = 0, bottom = 0;
        int inkedPixels = 0;       // those that are not as the panel is elsewhere
        double inkBrightness = 0;  // their mean, 0 to 255
        double panelBrightness = 0;

        friend bool operator==(const Icon&, const Icon&) = default;
    };
    // Empty when there is none, or no panel at all.
    std::optional<Icon> icon() const;
    // Answers once the icon is there and keeps still.
    Icon waitForIcon() const;
    bool becomesEmpty() const;

    // With the left button.
    void clickIcon() const;
    // With the right button; answers the window of the menu that opens.
    std::string openMenu() const;
    // Whether a menu of the panel is open.
    bool hasMenu() const;

private:
    bool isOnScreen() const;
    void clickIconWith(int button) const;
    std::string openMenus() const;
    std::string ask(const std::string& property) const;

    const test::VirtualDisplay& display_;
    std::map<std::string, std::string> environment_;
    std::string log_;
    test::ChildProcess settings_;
    test::ChildProcess panel_;
};

}  // namespace utilia::agent
