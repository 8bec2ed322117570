#include "Tests/Support/VirtualDisplay.h"

#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

#include "Tests/Support/RecordingPort.h"
#include "Tests/Support/TemporaryHome.h"

namespace utilia::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kUnset = "\x01";
constexpr auto kPatience = 60s;

std::string findProgram(const std::string& name) {
    const char* const path = std::getenv("PATH");
    std::istringstream folders(path ? path : "/usr/bin:/bin");
    for (std::string folder; std::getline(folders, folder, ':');) {
        if (fs::exists(fs::path(folder) / name)) return fs::path(folder) / name;
    }
    throw std::runtime_error("there is no program " + name + " (scripts/packages lists it)");
}

// A key of the display that holds for every number: which one it gets is known later.
void writeAuthority(const fs::path& path) {
    constexpr std::string_view kName = "MIT-MAGIC-COOKIE-1";
    std::ofstream file(path, std::ios::binary);
    const auto number = [&file](unsigned value) {
        file.put(static_cast<char>(value >> 8)).put(static_cast<char>(value & 0xff));
    };
    number(0xffff);  // any address
    number(0);
    number(0);  // any display
    number(kName.size());
    file << kName;
    number(16);
    std::random_device random;
    for (int i = 0; i < 16; ++i) file.put(static_cast<char>(random() & 0xff));
    file.close();
    fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
    if (!file) throw std::runtime_error("write " + path.string());
}

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

ProgramOutput runProgram(const std::vector<std::string>& command,
                         const std::map<std::string, std::string>& environment) {
    const TemporaryFolder folder;
    ChildProcessOptions options;
    options.environment = environment;
    options.standardOutput = folder.path() / "output";
    options.standardError = folder.path() / "errors";
    options.ownSession = true;
    options.diesWithTest = true;
    auto child = ChildProcess::program(findProgram(command.front()),
                                       {command.begin() + 1, command.end()}, options);
    const auto status = child.waitForExit(kPatience);
    std::string text = contentOf(options.standardOutput);
    if (!status) throw std::runtime_error(command.front() + " does not end; it said: " + text);
    while (text.ends_with('\n')) text.pop_back();
    return {*status, std::move(text), contentOf(options.standardError)};
}

VirtualDisplay::VirtualDisplay(const fs::path& folder) {
    const fs::path authority = folder / "Xauthority";
    writeAuthority(authority);
    ChildProcessOptions options;
    options.ownSession = true;
    options.diesWithTest = true;
    options.standardOutput = folder / "display.log";
    options.standardError = folder / "display.log";
    // It says its number on the channel when it listens.
    server_ =
        ChildProcess::program(findProgram("Xvfb"),
                              {"-displayfd", std::to_string(kChildChannel), "-auth", authority,
                               "-screen", "0", "1000x700x24", "-nolisten", "tcp", "-noreset"},
                              options);
    const auto number = server_.waitForLine();
    if (!number) throw std::runtime_error("the display does not start");
    environment_ = {{"DISPLAY", ":" + *number},
                    {"XAUTHORITY", authority.string()},
                    {"WAYLAND_DISPLAY", kUnset}};
    // With the first key that a test presses the display changes over to another keyboard, and says
    // so. A window manager then lets go of its keys to look at them anew, and the next key that
    // comes meanwhile is not for it. So this happens before there is one.
    press({"Shift_L"});

    ReportPipe up(folder);
    options.environment = environment_;
    options.environment["HOME"] = folder.string();
    // Its themes and settings are the system's.
    options.environment["XDG_DATA_DIRS"] = kUnset;
    options.environment["XDG_CONFIG_DIRS"] = kUnset;
    manager_ = ChildProcess::program(
        findProgram("openbox"), {"--sm-disable", "--startup", "sh -c 'echo up >" + up.path() + "'"},
        options);
    if (up.waitForLine() != "up") throw std::runtime_error("the window manager does not start");
}

ProgramOutput VirtualDisplay::run(const std::vector<std::string>& command) const {
    return runProgram(command, environment_);
}

std::string VirtualDisplay::waitForWindow(const std::string& title) const {
    // Windows that go away while xdotool looks around end its search: it is asked again.
    std::string window;
    const bool isInFront = eventually([&] {
        const auto found = run({"xdotool", "search", "--onlyvisible", "--name", "^" + title + "$"});
        window = found.status == 0 ? found.text.substr(0, found.text.find('\n')) : "";
        return !window.empty() && focusedWindow() == window;
    });
    if (!isInFront) throw std::runtime_error("no window " + title + " comes to the front");
    return window;
}

std::string VirtualDisplay::focusedWindow() const {
    return run({"xdotool", "getwindowfocus"}).text;
}

bool VirtualDisplay::hasWindow(const std::string& title) const {
    // Windows that go away while xdotool looks around end its search, of which it complains.
    for (int tries = 0; tries < 100; ++tries) {
        const auto found = run({"xdotool", "search", "--onlyvisible", "--name", "^" + title + "$"});
        if (found.errors.empty()) return !found.text.empty();
    }
    throw std::runtime_error("xdotool does not get to the end of its search");
}

int VirtualDisplay::processOfWindow(const std::string& window) const {
    return std::stoi(run({"xdotool", "getwindowpid", window}).text);
}

VirtualDisplay::Size VirtualDisplay::sizeOfWindow(const std::string& window) const {
    std::istringstream lines(run({"xdotool", "getwindowgeometry", "--shell", window}).text);
    Size size;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("WIDTH=")) size.width = std::stoi(line.substr(6));
        if (line.starts_with("HEIGHT=")) size.height = std::stoi(line.substr(7));
    }
    return size;
}

std::string VirtualDisplay::colorInWindow(const std::string& window, int x, int y) const {
    const std::string place = std::to_string(x) + "+" + std::to_string(y);
    return run({"import", "-silent", "-window", window, "-crop", "1x1+" + place, "-depth", "8",
                "-format", "#%[hex:u.p{0,0}]", "info:-"})
        .text;
}

std::string VirtualDisplay::propertyOfWindow(const std::string& window,
                                             const std::string& name) const {
    return run({"xprop", "-id", window, name}).text;
}

void VirtualDisplay::press(const std::vector<std::string>& keys) const {
    std::vector<std::string> command{"xdotool", "key", "--clearmodifiers"};
    command.insert(command.end(), keys.begin(), keys.end());
    if (run(command).status != 0) throw std::runtime_error("xdotool cannot press keys");
}

void VirtualDisplay::click(const std::string& window, int x, int y) const {
    if (run({"xdotool", "mousemove", "--window", window, std::to_string(x), std::to_string(y),
             "click", "1"})
            .status != 0) {
        throw std::runtime_error("xdotool cannot click");
    }
}

void VirtualDisplay::clickOnScreen(int x, int y, int button) const {
    if (run({"xdotool", "mousemove", std::to_string(x), std::to_string(y), "click",
             std::to_string(button)})
            .status != 0) {
        throw std::runtime_error("xdotool cannot click");
    }
}

std::string VirtualDisplay::pixels(int left, int top, int width, int height) const {
    const TemporaryFolder folder;
    const fs::path picture = folder.path() / "pixels";
    const std::string place = std::to_string(width) + "x" + std::to_string(height) + "+" +
                              std::to_string(left) + "+" + std::to_string(top);
    const auto taken = run({"import", "-silent", "-window", "root", "-crop", place, "-depth", "8",
                            "rgb:" + picture.string()});
    std::ifstream file(picture, std::ios::binary);
    std::string bytes(std::istreambuf_iterator<char>(file), {});
    if (taken.status != 0 || bytes.size() != static_cast<std::size_t>(3 * width * height))
        throw std::runtime_error("import takes no picture");
    return bytes;
}

void VirtualDisplay::end() { server_.kill(); }

void VirtualDisplay::photograph(const fs::path& picture) const {
    if (run({"import", "-silent", "-window", "root", "png:" + picture.string()}).status != 0) {
        throw std::runtime_error("import takes no picture");
    }
}

}  // namespace utilia::test
