#include "Common/Platform/HostInfo.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <system_error>

#include <unistd.h>

#include "Common/Foundation/Sha256.h"
#include "Common/Foundation/Unicode.h"
#include "Common/Platform/Linux/DconfDatabase.h"
#include "Common/Platform/Linux/FileInput.h"
#include "Common/Platform/Linux/Folders.h"

// Everything comes from files: asking the desktop's own services would load libraries, wait for a
// bus and start threads in whichever application happens to begin a log.

namespace utilia::platform {
namespace {

constexpr std::size_t kLargestFile = std::size_t{4} << 20;
constexpr std::size_t kMachineIdDigits = 32;

// Empty when it cannot be read.
std::string contentOf(const std::string& path) {
    const auto bytes = FileInput::contents(path, kLargestFile);
    return bytes ? std::string(bytes->begin(), bytes->end()) : std::string();
}

// Of the kernel's files, which say that they are empty.
std::string kernelText(const std::string& path) {
    auto file = FileInput::open(path, FileInput::Links::Follow);
    if (!file) return {};
    const UniqueFd descriptor = file->takeDescriptor();
    std::array<char, 1024> text{};
    const ssize_t length = read(descriptor.get(), text.data(), text.size());
    return length > 0 ? std::string(text.data(), static_cast<std::size_t>(length)) : std::string();
}

// What a person would read: one line, without what surrounds it.
std::string plainLine(std::string_view text) {
    text = text.substr(0, text.find_first_of(std::string_view("\0\n", 2)));
    const std::string valid = utf8FromUtf16(utf16FromUtf8(text));
    std::string line;
    for (const char c : valid) line += static_cast<unsigned char>(c) < 0x20 || c == 0x7F ? ' ' : c;
    const std::size_t begin = line.find_first_not_of(' ');
    if (begin == std::string::npos) return {};
    return line.substr(begin, line.find_last_not_of(' ') - begin + 1);
}

int digitOf(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

// The value of a key in a group of a settings file; empty when there is none.
std::optional<std::string> settingIn(const std::string& content, std::string_view group,
                                     std::string_view key) {
    bool isInGroup = false;
    std::string_view rest = content;
    while (!rest.empty()) {
        const std::string_view line = rest.substr(0, rest.find('\n'));
        rest.remove_prefix(std::min(line.size() + 1, rest.size()));
        if (line.starts_with('[')) {
            isInGroup = line.substr(1, line.find(']') - 1) == group;
        } else if (const std::size_t equals = line.find('=');
                   isInGroup && equals != std::string_view::npos && line.substr(0, equals) == key) {
            return std::string(line.substr(equals + 1));
        }
    }
    return std::nullopt;
}

std::string userSettings(std::string_view file) {
    return contentOf(xdgFolder("XDG_CONFIG_HOME", ".config") + "/" + std::string(file));
}

using Appearance = HostInfo::Appearance;

std::optional<Appearance> appearanceOfGnome() {
    const std::string settings = userSettings("dconf/user");
    if (const auto scheme = dconfString(settings, "/org/gnome/desktop/interface/color-scheme");
        scheme && *scheme != "default")
        return *scheme == "prefer-dark" ? Appearance::Dark : Appearance::Light;
    if (const auto theme = dconfString(settings, "/org/gnome/desktop/interface/gtk-theme"))
        return theme->ends_with("-dark") ? Appearance::Dark : Appearance::Light;
    return std::nullopt;
}

std::optional<Appearance> appearanceOfKde() {
    const auto scheme = settingIn(userSettings("kdeglobals"), "General", "ColorScheme");
    if (!scheme) return std::nullopt;
    return scheme->find("Dark") != std::string::npos ? Appearance::Dark : Appearance::Light;
}

std::optional<Appearance> appearanceOfToolkit() {
    for (const char* file : {"gtk-4.0/settings.ini", "gtk-3.0/settings.ini"}) {
        const auto isDark =
            settingIn(userSettings(file), "Settings", "gtk-application-prefer-dark-theme");
        if (isDark)
            return *isDark == "1" || *isDark == "true" ? Appearance::Dark : Appearance::Light;
    }
    return std::nullopt;
}

std::optional<bool> doNotDisturbOfGnome() {
    const auto shows =
        dconfBoolean(userSettings("dconf/user"), "/org/gnome/desktop/notifications/show-banners");
    if (!shows) return std::nullopt;
    return !*shows;
}

// Until a moment of local time, "2026,11,21,18,30,0.5".
std::optional<bool> doNotDisturbOfKde() {
    const auto until = settingIn(userSettings("plasmanotifyrc"), "DoNotDisturb", "Until");
    if (!until) return std::nullopt;
    std::array<int, 6> fields{};
    const char* position = until->data();
    const char* const end = position + until->size();
    for (int& field : fields) {
        const auto read = std::from_chars(position, end, field);
        if (read.ec != std::errc{}) return std::nullopt;
        position = read.ptr == end ? end : read.ptr + 1;
    }
    std::tm moment{};
    moment.tm_year = fields[0] - 1900;
    moment.tm_mon = fields[1] - 1;
    moment.tm_mday = fields[2];
    moment.tm_hour = fields[3];
    moment.tm_min = fields[4];
    moment.tm_sec = fields[5];
    moment.tm_isdst = -1;
    return std::mktime(&moment) > std::time(nullptr);
}

bool isKdeRunning() {
    const char* const desktop = std::getenv("XDG_CURRENT_DESKTOP");
    return desktop && std::string_view(desktop).find("KDE") != std::string_view::npos;
}

// The running desktop's setting first; those of others may be left from another time.
template <class Answer>
Answer ofDesktop(Answer (*gnome)(), Answer (*kde)()) {
    const Answer first = isKdeRunning() ? kde() : gnome();
    return first ? first : isKdeRunning() ? gnome() : kde();
}

}  // namespace

HostInfo::HostInfo(std::string root) : root_(std::move(root)) {}

std::string HostInfo::platformUUID(std::string_view application) const {
    std::string id;
    for (const char* path : {"/etc/machine-id", "/var/lib/dbus/machine-id"}) {
        id = plainLine(contentOf(root_ + path));
        if (!id.empty()) break;
    }
    if (id.size() != kMachineIdDigits) return {};
    std::string key;
    for (std::size_t i = 0; i < id.size(); i += 2) {
        const int high = digitOf(id[i]);
        const int low = digitOf(id[i + 1]);
        if (high < 0 || low < 0) return {};
        key += static_cast<char>(high << 4 | low);
    }
    Sha256Digest digest = hmacSha256(key, application);
    // As a random UUID.
    digest[6] = static_cast<std::uint8_t>((digest[6] & 0x0F) | 0x40);
    digest[8] = static_cast<std::uint8_t>((digest[8] & 0x3F) | 0x80);
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    std::string text;
    for (std::size_t i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        text += kDigits[digest[i] >> 4];
        text += kDigits[digest[i] & 15];
    }
    return text;
}

HostInfo::OperatingSystemVersion HostInfo::operatingSystemVersion() const {
    const std::string release = kernelText(root_ + "/proc/sys/kernel/osrelease");
    std::array<long, 3> numbers{};
    const char* position = release.data();
    const char* const end = position + release.size();
    for (long& number : numbers) {
        const auto read = std::from_chars(position, end, number);
        if (read.ec != std::errc{} || number < 0) {
            number = 0;
            break;
        }
        position = read.ptr;
        if (position == end || *position != '.') break;
        ++position;
    }
    return {numbers[0], numbers[1], numbers[2]};
}

std::string HostInfo::model() const {
    for (const char* path :
         {"/sys/class/dmi/id/product_name", "/sys/firmware/devicetree/base/model"}) {
        std::string name = plainLine(kernelText(root_ + path));
        if (!name.empty()) return name;
    }
    return {};
}

bool HostInfo::hasInternalBattery() const {
    std::error_code error;
    std::filesystem::directory_iterator supplies(root_ + "/sys/class/power_supply", error);
    for (; !error && supplies != std::filesystem::directory_iterator(); supplies.increment(error)) {
        const std::string folder = supplies->path().native();
        // A mouse and its like have a battery of their own.
        if (plainLine(kernelText(folder + "/type")) == "Battery" &&
            plainLine(kernelText(folder + "/scope")) != "Device")
            return true;
    }
    return false;
}

std::optional<HostInfo::Appearance> HostInfo::appearance() const {
    const auto found = ofDesktop(appearanceOfGnome, appearanceOfKde);
    return found ? found : appearanceOfToolkit();
}

std::optional<bool> HostInfo::isDoNotDisturbOn() const {
    return ofDesktop(doNotDisturbOfGnome, doNotDisturbOfKde);
}

std::string HostInfo::localeIdentifier() {
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* const value = std::getenv(name);
        if (!value || !*value) continue;
        const std::string_view locale = value;
        const std::string_view identifier = locale.substr(0, locale.find_first_of(".@"));
        if (identifier == "C" || identifier == "POSIX") break;
        return std::string(identifier);
    }
    return "en_US_POSIX";
}

}  // namespace utilia::platform
