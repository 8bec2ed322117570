#include <cstdlib>
#include <filesystem>

#include "Common/Foundation/Sha256.h"
#include "Common/Platform/HostInfo.h"
#include "Common/Platform/Linux/DconfDatabase.h"
#include "Common/Platform/UserDefaults.h"
#include "Common/UtiliaCommon/CEP/EventLogHeader.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Unit/EventLog/LogSample.h"
#include "Tests/Unit/EventLog/XmlDocument.h"

namespace utilia {
namespace {

namespace fs = std::filesystem;
using platform::HostInfo;
using platform::UserDefaults;
using test::writeTo;
using test::XmlDocument;

std::string hexadecimal(const Sha256Digest& digest) {
    std::string text;
    for (const std::uint8_t byte : digest) {
        char digits[3];
        snprintf(digits, sizeof digits, "%02x", byte);
        text += digits;
    }
    return text;
}

TEST(Sha256, HashesAsTheStandardsExamples) {
    EXPECT_EQ(hexadecimal(sha256("")),
              "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(hexadecimal(sha256("abc")),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(hexadecimal(sha256("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq")),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    EXPECT_EQ(hexadecimal(sha256(std::string(1'000'000, 'a'))),
              "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
    // RFC 4231, cases 2 and 6.
    EXPECT_EQ(hexadecimal(hmacSha256("Jefe", "what do ya want for nothing?")),
              "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
    EXPECT_EQ(hexadecimal(hmacSha256(std::string(131, '\xaa'),
                                     "Test Using Larger Than Block-Size Key - Hash Key First")),
              "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54");
}

class HostInfoTest : public testing::Test {
protected:
    HostInfoTest() { unsetenv("XDG_CURRENT_DESKTOP"); }

    void put(const fs::path& path, const std::string& content) const {
        fs::create_directories((root_.path() / path).parent_path());
        writeTo(root_.path() / path, content);
    }
    void putSetting(const fs::path& path, const std::string& content) const {
        fs::create_directories((home_.config() / path).parent_path());
        writeTo(home_.config() / path, content);
    }
    HostInfo host() const { return HostInfo(root_.path().string()); }

    test::TemporaryHome home_;
    test::TemporaryFolder root_;
};

TEST_F(HostInfoTest, AnswersNothingAboutNothing) {
    EXPECT_EQ(host().platformUUID("x"), "");
    EXPECT_EQ(host().model(), "");
    EXPECT_FALSE(host().hasInternalBattery());
    EXPECT_EQ(host().operatingSystemVersion().majorVersion, 0);
    EXPECT_FALSE(host().appearance());
    EXPECT_FALSE(host().isDoNotDisturbOn());
}

TEST_F(HostInfoTest, NamesTheComputerForEachApplicationAndNeverItself) {
    const std::string id = "4d7e2f0a9b1c4e5f8a6b3c2d1e0f9a8b";
    put("etc/machine-id", id + "\n");
    const std::string name = host().platformUUID("a");
    // Computed apart: HMAC-SHA256 with the identity as key, its first 16 bytes as a random UUID.
    EXPECT_EQ(name, "1C80269F-1181-47DD-B26D-916D532DB98B");
    EXPECT_EQ(host().platformUUID("a"), name);
    EXPECT_NE(host().platformUUID("b"), name);
    for (const char* broken : {"", "short", "uninitialized\n", "4D7E2F0A9B1C4E5F8A6B3C2D1E0F9A8B",
                               "zd7e2f0a9b1c4e5f8a6b3c2d1e0f9a8b"}) {
        put("etc/machine-id", broken);
        EXPECT_EQ(host().platformUUID("a"), "") << broken;
    }
    fs::remove(root_.path() / "etc/machine-id");
    put("var/lib/dbus/machine-id", id + "\n");
    EXPECT_EQ(host().platformUUID("a"), name);
}

TEST_F(HostInfoTest, ReadsTheKernelsVersion) {
    const auto version = [&](const std::string& release) {
        put("proc/sys/kernel/osrelease", release);
        const auto found = host().operatingSystemVersion();
        return std::to_string(found.majorVersion) + "." + std::to_string(found.minorVersion) + "." +
               std::to_string(found.patchVersion);
    };
    EXPECT_EQ(version("6.1.0-18-amd64\n"), "6.1.0");
    EXPECT_EQ(version("6.18.5\n"), "6.18.5");
    EXPECT_EQ(version("6.5-rc1"), "6.5.0");
    EXPECT_EQ(version("nonsense"), "0.0.0");
    EXPECT_EQ(version("6.-1.2"), "6.0.0");
    EXPECT_EQ(version("99999999999999999999.1"), "0.0.0");
}

TEST_F(HostInfoTest, ReadsTheModelInOneLine) {
    put("sys/firmware/devicetree/base/model", std::string("Board 5\0", 8));
    EXPECT_EQ(host().model(), "Board 5");
    put("sys/class/dmi/id/product_name", "  Note\tBook \xFF 14 \nmore\n");
    EXPECT_EQ(host().model(), "Note Book \uFFFD 14");
}

TEST_F(HostInfoTest, CountsTheBatteryOfTheComputerOnly) {
    put("sys/class/power_supply/AC/type", "Mains\n");
    put("sys/class/power_supply/mouse/type", "Battery\n");
    put("sys/class/power_supply/mouse/scope", "Device\n");
    EXPECT_FALSE(host().hasInternalBattery());
    put("sys/class/power_supply/BAT0/type", "Battery\n");
    EXPECT_TRUE(host().hasInternalBattery());
    put("sys/class/power_supply/BAT0/scope", "System\n");
    EXPECT_TRUE(host().hasInternalBattery());
}

// A database as GNOME keeps it: written by dconf, with these keys and others.
std::string database(const std::string& scheme, bool showsBanners) {
    std::string bytes("GVariant\0\0\0\0\0\0\0\0", 16);
    const auto number = [](std::uint32_t value) {
        return std::string(reinterpret_cast<const char*>(&value), 4);
    };
    struct Item {
        std::uint32_t parent;
        std::string key;
        char type;
        std::string value;
    };
    const Item items[] = {{0xFFFFFFFF, "/", 'L', ""},
                          {0, "org/gnome/desktop/", 'L', ""},
                          {1, "interface/", 'L', ""},
                          {2, "color-scheme", 'v', scheme + std::string("\0\0s", 3)},
                          {1, "notifications/", 'L', ""},
                          {4, "show-banners", 'v',
                           std::string(1, showsBanners ? '\1' : '\0') + std::string("\0b", 2)}};
    constexpr std::uint32_t kTable = 24;
    const std::uint32_t tableSize = 8 + 4 + 24 * 6;
    std::string table = number(0) + number(1) + number(0);
    std::string texts;
    const std::uint32_t textsBegin = kTable + tableSize;
    for (const Item& item : items) {
        const auto keyAt = static_cast<std::uint32_t>(textsBegin + texts.size());
        texts += item.key;
        const auto valueAt = static_cast<std::uint32_t>(textsBegin + texts.size());
        texts += item.value;
        const auto keySize = static_cast<std::uint16_t>(item.key.size());
        table += number(0) + number(item.parent) + number(keyAt) +
                 std::string(reinterpret_cast<const char*>(&keySize), 2) + item.type + '\0' +
                 number(valueAt) + number(static_cast<std::uint32_t>(valueAt + item.value.size()));
    }
    return bytes + number(kTable) + number(kTable + tableSize) + table + texts;
}

TEST_F(HostInfoTest, AsksTheSettingsOfGnome) {
    putSetting("dconf/user", database("prefer-dark", false));
    EXPECT_EQ(host().appearance(), HostInfo::Appearance::Dark);
    EXPECT_EQ(host().isDoNotDisturbOn(), true);
    putSetting("dconf/user", database("prefer-light", true));
    EXPECT_EQ(host().appearance(), HostInfo::Appearance::Light);
    EXPECT_EQ(host().isDoNotDisturbOn(), false);
    putSetting("dconf/user", database("default", true));
    EXPECT_FALSE(host().appearance());
}

TEST_F(HostInfoTest, SurvivesADamagedDatabase) {
    const std::string sound = database("prefer-dark", false);
    for (std::size_t size = 0; size < sound.size(); ++size)
        (void)platform::dconfString(sound.substr(0, size),
                                    "/org/gnome/desktop/interface/color-scheme");
    for (std::size_t i = 0; i < sound.size(); ++i) {
        for (const char byte : {'\0', '\1', '\x7F', '\xFF'}) {
            std::string damaged = sound;
            damaged[i] = byte;
            const auto found =
                platform::dconfString(damaged, "/org/gnome/desktop/interface/color-scheme");
            EXPECT_TRUE(!found || found->size() < sound.size());
        }
    }
    EXPECT_EQ(platform::dconfString(sound, "/org/gnome/desktop/interface/color-scheme"),
              "prefer-dark");
    EXPECT_FALSE(platform::dconfString(sound, "/org/gnome/desktop/interface/none"));
    EXPECT_FALSE(platform::dconfString(sound, "color-scheme"));
    EXPECT_FALSE(platform::dconfBoolean(sound, "/org/gnome/desktop/interface/color-scheme"));
}

TEST_F(HostInfoTest, AsksTheSettingsOfPlasma) {
    putSetting("kdeglobals", "[General]\nColorScheme=BreezeDark\n");
    EXPECT_EQ(host().appearance(), HostInfo::Appearance::Dark);
    putSetting("kdeglobals", "[Other]\nColorScheme=BreezeDark\n[General]\nColorScheme=Breeze\n");
    EXPECT_EQ(host().appearance(), HostInfo::Appearance::Light);
    putSetting("plasmanotifyrc", "[DoNotDisturb]\nUntil=2001,1,2,3,4,5.5\n");
    EXPECT_EQ(host().isDoNotDisturbOn(), false);
    putSetting("plasmanotifyrc", "[DoNotDisturb]\nUntil=2999,1,2,3,4,5.5\n");
    EXPECT_EQ(host().isDoNotDisturbOn(), true);
    putSetting("plasmanotifyrc", "[DoNotDisturb]\nUntil=soon\n");
    EXPECT_FALSE(host().isDoNotDisturbOn());
}

TEST_F(HostInfoTest, PrefersTheRunningDesktopsSetting) {
    putSetting("kdeglobals", "[General]\nColorScheme=Breeze\n");
    putSetting("dconf/user", database("prefer-dark", true));
    EXPECT_EQ(host().appearance(), HostInfo::Appearance::Dark);
    setenv("XDG_CURRENT_DESKTOP", "KDE", 1);
    EXPECT_EQ(host().appearance(), HostInfo::Appearance::Light);
    unsetenv("XDG_CURRENT_DESKTOP");
}

TEST_F(HostInfoTest, AsksTheToolkitLast) {
    putSetting("gtk-3.0/settings.ini", "[Settings]\ngtk-application-prefer-dark-theme=1\n");
    EXPECT_EQ(host().appearance(), HostInfo::Appearance::Dark);
    putSetting("gtk-4.0/settings.ini", "[Settings]\ngtk-application-prefer-dark-theme=false\n");
    EXPECT_EQ(host().appearance(), HostInfo::Appearance::Light);
}

TEST_F(HostInfoTest, NamesTheLocale) {
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) unsetenv(name);
    EXPECT_EQ(HostInfo::localeIdentifier(), "en_US_POSIX");
    setenv("LANG", "de_DE.UTF-8@euro", 1);
    EXPECT_EQ(HostInfo::localeIdentifier(), "de_DE");
    setenv("LC_MESSAGES", "fr", 1);
    EXPECT_EQ(HostInfo::localeIdentifier(), "fr");
    setenv("LC_ALL", "C.UTF-8", 1);
    EXPECT_EQ(HostInfo::localeIdentifier(), "en_US_POSIX");
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) unsetenv(name);
}

class EventLogHeaderTest : public HostInfoTest {
protected:
    static std::string textOf(const EventLogFacts& facts) {
        std::string text;
        for (const std::string_view piece : eventLogHeader(facts)) text += piece;
        return text;
    }
    EventLogFacts facts() const { return gatherEventLogFacts(host(), "UUID", "1.2-34"); }
    static std::unique_ptr<UserDefaults> domain(const char* name) {
        return UserDefaults::initWithDomain(name);
    }
};

TEST_F(EventLogHeaderTest, IsWrittenAsTheSample) {
    const EventLogFacts sample{
        .hardwareUUID = "1C80269F-1181-47DD-B26D-916D532DB98B",
        .osInfo = "6.1.0",
        .computerModel = "Sample 1",
        .locale = "de_DE",
        .clientVersion = "1.2-34",
        .safariVersion = "17.1",
        .isSystemDoNotDisturb = true,
        .notificationLines = "\t<Notification tool=\"com.korvane.utilia.Timer\" "
                             "enabled=\"yes\">8</Notification>\n",
        .hasBattery = true,
        .appearance = "dark",
        .settingsLines = "\t<Shortcuts count=\"2\" active_count=\"1\">yes</Shortcuts>\n"
                         "\t<StartupAtLogin enabled=\"1\">yes</StartupAtLogin>\n"
                         "\t<AutomaticUpdates enabled=\"0\">no</AutomaticUpdates>\n",
    };
    const Dictionary options{{"theme", "dark & light"}};
    const Dictionary details{{"FromInstaller", true}, {"list", Array{"a", 1, Dictionary{}}}};
    TextBuffer record;
    appendEventRecord(record, Date{636613567.1235},
                      {"com.korvane.utilia.Timer", "/Applications/Timer.app", "1.2-34"}, "Start",
                      nullptr, &options, &details);
    const std::string document =
        textOf(sample) + std::string(record.text()) + std::string(kEventLogFooter);
    EXPECT_EQ(document, test::contentOf(std::string(test::places::kTestData) + "/event-log.xml"));
    // With the program that everybody has.
    EXPECT_EQ(
        std::system(("xmllint --noout '" + std::string(test::places::kTestData) + "/event-log.xml'")
                        .c_str()),
        0);
}

TEST_F(EventLogHeaderTest, LeavesEmptyWhatNobodyKnows) {
    unsetenv("LANG");
    const EventLogFacts found = facts();
    EXPECT_EQ(found.hardwareUUID, "UUID");
    EXPECT_EQ(found.osInfo, "0.0.0");
    EXPECT_EQ(found.computerModel, "");
    EXPECT_EQ(found.clientVersion, "1.2-34");
    EXPECT_EQ(found.safariVersion, "");
    EXPECT_FALSE(found.isSystemDoNotDisturb);
    EXPECT_EQ(found.notificationLines, "");
    EXPECT_FALSE(found.hasBattery);
    EXPECT_EQ(found.appearance, "");
    EXPECT_EQ(found.settingsLines, "\t<Shortcuts count=\"0\" active_count=\"0\">no</Shortcuts>\n"
                                   "\t<StartupAtLogin enabled=\"0\">no</StartupAtLogin>\n"
                                   "\t<AutomaticUpdates enabled=\"1\">yes</AutomaticUpdates>\n");
    EXPECT_TRUE(XmlDocument::parse(textOf(found) + std::string(kEventLogFooter)));
}

TEST_F(EventLogHeaderTest, ListsTheSuitesNotifications) {
    domain("com.apple.ncprefs")
        ->setObject(Array{Dictionary{{"bundle-id", "com.korvane.utilia"}, {"flags", 8}},
                          Dictionary{{"bundle-id", "com.korvane.utilia.A"}, {"flags", 16.0}},
                          Dictionary{{"bundle-id", "com.korvane.utilia.B"}, {"flags", 7}},
                          Dictionary{{"bundle-id", "com.korvane.utiliaX"}, {"flags", 4126}},
                          Dictionary{{"bundle-id", "com.example.C"}, {"flags", 8}},
                          Dictionary{{"bundle-id", "com.korvane.utilia.D"}, {"flags", "8"}},
                          Dictionary{{"bundle-id", "com.korvane.utilia.E"}},
                          Dictionary{{"flags", 8}}, "com.korvane.utilia.F"},
                    "apps");
    EXPECT_EQ(facts().notificationLines,
              "\t<Notification tool=\"com.korvane.utilia\" enabled=\"yes\">8</Notification>\n"
              "\t<Notification tool=\"com.korvane.utilia.A\" enabled=\"yes\">16</Notification>\n"
              "\t<Notification tool=\"com.korvane.utilia.B\" enabled=\"no\">7</Notification>\n"
              "\t<Notification tool=\"com.korvane.utiliaX\" enabled=\"yes\">4126</Notification>\n");
    domain("com.apple.ncprefs")->setObject("none", "apps");
    EXPECT_EQ(facts().notificationLines, "");
}

TEST_F(EventLogHeaderTest, PrefersTheStoredWordOnDoNotDisturb) {
    putSetting("dconf/user", database("prefer-dark", false));
    EXPECT_TRUE(facts().isSystemDoNotDisturb);
    const auto center = domain("com.apple.notificationcenterui");
    center->setObject(false, "doNotDisturb");
    EXPECT_FALSE(facts().isSystemDoNotDisturb);
    putSetting("dconf/user", database("prefer-dark", true));
    center->setObject(true, "doNotDisturb");
    EXPECT_TRUE(facts().isSystemDoNotDisturb);
    center->setObject(1, "doNotDisturb");  // a number, not a boolean
    EXPECT_FALSE(facts().isSystemDoNotDisturb);
}

TEST_F(EventLogHeaderTest, CountsTheAgentsShortcuts) {
    domain("com.korvane.utilia")
        ->setObject(Array{Dictionary{{"active", true}}, Dictionary{{"active", false}},
                          Dictionary{{"active", 1}}, Dictionary{}, "x"},
                    "Shortcuts");
    EXPECT_TRUE(facts().settingsLines.starts_with(
        "\t<Shortcuts count=\"5\" active_count=\"2\">yes</Shortcuts>\n"));
}

TEST_F(EventLogHeaderTest, FindsTheFactsOfTheHost) {
    put("proc/sys/kernel/osrelease", "6.1.0-18-amd64");
    put("sys/class/dmi/id/product_name", "Sample 1");
    put("sys/class/power_supply/BAT0/type", "Battery");
    putSetting("dconf/user", database("prefer-light", true));
    setenv("LANG", "de_DE.UTF-8", 1);
    const EventLogFacts found = facts();
    unsetenv("LANG");
    EXPECT_EQ(found.osInfo, "6.1.0");
    EXPECT_EQ(found.computerModel, "Sample 1");
    EXPECT_EQ(found.locale, "de_DE");
    EXPECT_TRUE(found.hasBattery);
    EXPECT_EQ(found.appearance, "light");
}

TEST_F(EventLogHeaderTest, WritesItsValuesAsTheyAre) {
    EventLogFacts odd = test::sampleFacts();
    odd.computerModel = "A & B <C>";
    EXPECT_NE(textOf(odd).find("<ComputerModel>A & B <C></ComputerModel>"), std::string::npos);
}

}  // namespace
}  // namespace utilia
