#include "Tests/Process/Agent/DesktopPanel.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "Tests/Support/RecordingPort.h"

// The panel keeps its settings in a service, which is found by the file that describes it to session buses: the tests'
// know no services. The place for status icons runs in a process of its own, a child of the panel's, and is the
// registrar of status icons; it ends with the panel.
//
// Icons are looked for on the screen: whatever differs from the plain panel in the right half of it.

namespace utilia::agent {
namespace {

namespace fs = std::filesystem;

constexpr const char* kUnset = "\x01";
constexpr const char* kSettingsService = "/usr/share/dbus-1/services/org.xfce.Xfconf.service";
constexpr const char* kWatcher = "org.kde.StatusNotifierWatcher";
constexpr int kWidth = 1000;  // of the display
constexpr int kHeight = 32;
constexpr int kBorder = 3;  // lines at the edges of the panel
constexpr int kLeftButton = 1;
constexpr int kRightButton = 3;

// The program of a service.
std::string programOf(const char* service) {
    std::ifstream file(service);
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("Exec=")) return line.substr(5);
    }
    throw std::runtime_error(std::string("there is no ") + service +
                             " (scripts/packages lists what brings it)");
}

void write(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream file(path);
    file << text;
    if (!file.flush()) throw std::runtime_error("write " + path.string());
}

std::string panelSettings(bool isDark) {
    return R"(<?xml version="1.0" encoding="UTF-8"?>
<channel name="xfce4-panel" version="1.0">
  <property name="configver" type="int" value="2"/>
  <property name="panels" type="array">
    <value type="int" value="1"/>
    <property name="dark-mode" type="bool" value=")" +
           std::string(isDark ? "true" : "false") + R"("/>
    <property name="panel-1" type="empty">
      <property name="position" type="string" value="p=6;x=0;y=0"/>
      <property name="length" type="uint" value="100"/>
      <property name="position-locked" type="bool" value="true"/>
      <property name="size" type="uint" value=")" +
           std::to_string(kHeight) + R"("/>
      <property name="plugin-ids" type="array">
        <value type="int" value="1"/>
        <value type="int" value="2"/>
      </property>
    </property>
  </property>
  <property name="plugins" type="empty">
    <property name="plugin-1" type="string" value="separator">
      <property name="expand" type="bool" value="true"/>
      <property name="style" type="uint" value="0"/>
    </property>
    <property name="plugin-2" type="string" value="systray"/>
  </property>
</channel>
)";
}

int brightness(const std::string& pixels, std::size_t pixel) {
    const auto part = [&](std::size_t i) {
        return static_cast<int>(static_cast<unsigned char>(pixels[3 * pixel + i]));
    };
    return (part(0) + part(1) + part(2)) / 3;
}

}  // namespace

DesktopPanel::DesktopPanel(const test::VirtualDisplay& display, const test::PrivateBus& bus,
                           const fs::path& folder, Colors colors)
    : display_(display), environment_(display.environment()), log_(folder / "panel.log") {
    const bool isDark = colors == Colors::Dark;
    const fs::path settings = folder / "panel-settings";
    write(settings / "xfce4/xfconf/xfce-perchannel-xml/xfce4-panel.xml", panelSettings(isDark));
    write(settings / "gtk-3.0/settings.ini",
          std::string("[Settings]\ngtk-theme-name=Adwaita\ngtk-icon-theme-name=Adwaita\n"
                      "gtk-application-prefer-dark-theme=") +
              (isDark ? "true\n" : "false\n"));
    environment_["DBUS_SESSION_BUS_ADDRESS"] = bus.address();
    environment_["XDG_CONFIG_HOME"] = settings.string();
    environment_["XDG_CONFIG_DIRS"] = kUnset;
    environment_["XDG_DATA_DIRS"] = kUnset;  // its icons and colours are the system's
    environment_["NO_AT_BRIDGE"] = "1";
    test::ChildProcessOptions options;
    options.environment = environment_;
    options.standardOutput = log_;
    options.standardError = log_;
    options.diesWithTest = true;
    settings_ = test::ChildProcess::program(programOf(kSettingsService), {}, options);
    if (test::runProgram({"gdbus", "wait", "--session", "--timeout", "50", "org.xfce.Xfconf"},
                         environment_)
            .status != 0) {
        throw std::runtime_error("the panel's settings do not start");
    }
}

void DesktopPanel::start() {
    test::ChildProcessOptions options;
    options.environment = environment_;
    options.standardOutput = log_;
    options.standardError = log_;
    options.diesWithTest = true;
    panel_ = test::ChildProcess::program("/usr/bin/xfce4-panel", {"--disable-wm-check"}, options);
    const bool isThere = test::eventually([&] {
        return ask("IsStatusNotifierHostRegistered").find("true") != std::string::npos &&
               isOnScreen();
    });
    if (!isThere) throw std::runtime_error("the panel does not start");
}

void DesktopPanel::kill() {
    panel_.kill();
    const bool isGone = test::eventually(
        [&] { return ask("IsStatusNotifierHostRegistered").empty() && !isOnScreen(); });
    if (!isGone) throw std::runtime_error("the panel does not end");
}

// From the middle to the end, to which it grows a moment after it has come. What lies below is black.
bool DesktopPanel::isOnScreen() const {
    for (const int x : {kWidth / 2, kWidth - 1}) {
        if (brightness(display_.pixels(x, kHeight / 2, 1, 1), 0) == 0) return false;
    }
    return true;
}

// "" when there is nobody to ask.
std::string DesktopPanel::ask(const std::string& property) const {
    const auto answer =
        test::runProgram({"gdbus", "call", "--session", "--timeout", "50", "--dest", kWatcher,
                          "--object-path", "/StatusNotifierWatcher", "--method",
                          "org.freedesktop.DBus.Properties.Get", kWatcher, property},
                         environment_);
    return answer.status == 0 ? answer.text : "";
}

std::string DesktopPanel::registeredItems() const { return ask("RegisteredStatusNotifierItems"); }

std::optional<DesktopPanel::Icon> DesktopPanel::icon() const {
    constexpr int kLeft = kWidth / 2;
    constexpr int kRows = kHeight - 2 * kBorder;
    const std::string pixels = display_.pixels(kLeft, kBorder, kWidth - kLeft, kRows);
    const auto pixelAt = [](int x, int y) {
        return static_cast<std::size_t>(y * (kWidth - kLeft) + x);
    };
    Icon icon{.left = kWidth, .right = 0, .top = kHeight, .bottom = 0};
    icon.panelBrightness = brightness(pixels, 0);
    for (int y = 0; y < kRows; ++y) {
        for (int x = 0; x < kWidth - kLeft; ++x) {
            if (pixels.compare(3 * pixelAt(x, y), 3, pixels, 0, 3) == 0) continue;
            icon.left = std::min(icon.left, kLeft + x);
            icon.right = std::max(icon.right, kLeft + x);
            icon.top = std::min(icon.top, kBorder + y);
            icon.bottom = std::max(icon.bottom, kBorder + y);
            icon.inkBrightness += brightness(pixels, pixelAt(x, y));
            ++icon.inkedPixels;
        }
    }
    if (icon.inkedPixels == 0) return std::nullopt;
    icon.inkBrightness /= icon.inkedPixels;
    return icon;
}

DesktopPanel::Icon DesktopPanel::waitForIcon() const {
    std::optional<Icon> before;
    std::optional<Icon> now;
    const bool isStill = test::eventually([&] {
        before = now;
        now = icon();
        return now && now == before;
    });
    if (!isStill) throw std::runtime_error("there is no icon in the panel");
    return *now;
}

bool DesktopPanel::becomesEmpty() const {
    return test::eventually([&] { return !icon(); });
}

void DesktopPanel::clickIconWith(int button) const {
    const Icon place = waitForIcon();
    display_.clickOnScreen((place.left + place.right) / 2, (place.top + place.bottom) / 2, button);
}

void DesktopPanel::clickIcon() const { clickIconWith(kLeftButton); }

// The windows of the panel that no window manager knows.
std::string DesktopPanel::openMenus() const {
    return test::runProgram(
               {"xdotool", "search", "--maxdepth", "1", "--onlyvisible", "--class", "^wrapper-"},
               environment_)
        .text;
}

bool DesktopPanel::hasMenu() const { return !openMenus().empty(); }

std::string DesktopPanel::openMenu() const {
    clickIconWith(kRightButton);
    std::string menu;
    if (!test::eventually([&] { return !(menu = openMenus()).empty(); }))
        throw std::runtime_error("no menu opens");
    return menu;
}

}  // namespace utilia::agent
