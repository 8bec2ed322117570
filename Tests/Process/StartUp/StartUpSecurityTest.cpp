#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <sys/auxv.h>
#include <sys/stat.h>

#include "Common/Platform/UserDefaults.h"
#include "Tests/Process/StartUp/StartUpFixture.h"

// Whoever starts a tool says in which environment. Nothing of it may take the administrator's
// restriction away, or keep a tool from starting that is not restricted.

namespace utilia::test {
namespace {

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::IsEmpty;
using Environment = std::map<std::string, std::string>;

constexpr const char* kUnset = "\x01";
constexpr const char* kRestrictedLine =
    "Tool with bundleId com.korvane.utilia.Timer is restricted.";
constexpr const char* kLenient = R"({"WhiteToolsList": ["Timer"]})";

class StartUpSecurity : public StartUpFixture {
protected:
    StartUpSecurity() {
        markAsMigrated();
        // What a program finds without any variable is not the machine's either.
        for (const char* folder : {"/run/user", "/root"}) {
            if (fs::exists(folder)) mounts_.limitSpace(folder, 1 << 20);
        }
    }

    // A folder that looks like every place where settings could be expected, with lenient ones.
    fs::path lenientPlace() const {
        const fs::path root = home_.path() / "lenient";
        for (const char* folder : {"", "etc", ".config", ".config/korvane-utilia", "korvane-utilia",
                                   ".local/share", "Library/Application Support", "share", "xdg"}) {
            for (const char* name : {"settings.conf", "com.korvane.utilia/settings.conf"}) {
                fs::create_directories((root / folder / name).parent_path());
                std::ofstream(root / folder / name) << kLenient;
            }
        }
        return root;
    }

    void expectRestricted(const Environment& environment) {
        const std::size_t before = countInLog(kRestrictedLine);
        const Course course = courseOf(timer_, {}, {.environment = environment});
        EXPECT_THAT(course.lines, IsEmpty());
        EXPECT_EQ(course.status, 0);
        EXPECT_EQ(countInLog(kRestrictedLine), before + 1);
    }

    void expectToReachMain(const Environment& environment = {}) {
        const Course course = courseOf(timer_, {"no-loop"}, {.environment = environment});
        EXPECT_THAT(course.lines, ElementsAre("main"));
        EXPECT_EQ(course.status, 7);
    }

    const TestBundle timer_ = tool("Timer", kListed);
};

TEST_F(StartUpSecurity, NoFolderOfTheUserHoldsSettings) {
    allowOnly({"MoonPhase"});
    const std::string place = lenientPlace();
    for (const char* name :
         {"HOME", "XDG_CONFIG_HOME", "XDG_CONFIG_DIRS", "XDG_DATA_HOME", "XDG_DATA_DIRS",
          "XDG_STATE_HOME", "XDG_CACHE_HOME", "XDG_RUNTIME_DIR", "TMPDIR", "SYSROOT", "DESTDIR",
          "PREFIX", "ROOT", "UTILIA_SETTINGS", "UTILIA_CONFIG", "KORVANE_UTILIA_ETC"}) {
        SCOPED_TRACE(name);
        expectRestricted({{name, place}});
        expectRestricted({{name, place + "/etc"}});
        expectRestricted({{name, ""}});
    }
}

TEST_F(StartUpSecurity, TheFolderThatAToolIsStartedInHoldsNoSettings) {
    allowOnly({"MoonPhase"});
    for (const fs::path& folder :
         {lenientPlace(), lenientPlace() / "etc", lenientPlace() / "etc/com.korvane.utilia"}) {
        SCOPED_TRACE(folder);
        ChildProcess process = ChildProcess::program(
            "/usr/bin/env", {"-C", folder.string(), timer_.program()},
            {.standardError = home_.path() / "log", .mounts = &mounts_, .ownSession = true});
        const Course course = courseOf(process);
        EXPECT_THAT(course.lines, IsEmpty());
        EXPECT_EQ(course.status, 0);
    }
    EXPECT_EQ(countInLog(kRestrictedLine), 3u);
}

TEST_F(StartUpSecurity, VariablesOfTheLibrariesDoNotLetAToolThrough) {
    allowOnly({"MoonPhase"});
    const std::string place = lenientPlace();
    const Environment environments[] = {
        {{"G_MESSAGES_DEBUG", "all"}},
        {{"G_DEBUG", "fatal-warnings,fatal-criticals"}},
        {{"G_SLICE", "always-malloc"}},
        {{"G_FILENAME_ENCODING", "ISO-8859-1"}, {"G_BROKEN_FILENAMES", "1"}},
        {{"GIO_EXTRA_MODULES", place}, {"GIO_MODULE_DIR", place}},
        {{"GIO_USE_VFS", "nothing"}, {"GSETTINGS_BACKEND", "memory"}},
        {{"DBUS_SESSION_BUS_ADDRESS", "unix:path=/nowhere"}},
        {{"LANGUAGE", "de:" + std::string(3000, 'x')}, {"LANG", "de_DE.UTF-8"}},
        {{"LC_ALL", "../../../" + place}, {"LOCPATH", place}, {"NLSPATH", place}},
        {{"LC_ALL", "tr_TR.ISO-8859-9"}},
        {{"TEXTDOMAINDIR", place}, {"GCONV_PATH", place}},
        {{"MALLOC_ARENA_MAX", "1"}, {"GLIBC_TUNABLES", "glibc.malloc.check=3"}},
        {{"TZ", ":" + place + "/etc"}},
        {{"QT_PLUGIN_PATH", place}, {"QT_QPA_PLATFORM", "nonsense"}},
    };
    for (const Environment& environment : environments) {
        SCOPED_TRACE(testing::PrintToString(environment));
        expectRestricted(environment);
    }
}

TEST_F(StartUpSecurity, AnEmptyEnvironmentDoesNotLetAToolThrough) {
    allowOnly({"MoonPhase"});
    ChildProcess process = ChildProcess::program(
        "/usr/bin/env", {"-i", timer_.program()},
        {.standardError = home_.path() / "log", .mounts = &mounts_, .ownSession = true});
    EXPECT_THAT(courseOf(process).lines, IsEmpty());
    EXPECT_EQ(countInLog(kRestrictedLine), 1u);
}

// The loader of this program, which can be told to run any other.
std::string pathOfLoader() {
    Dl_info found{};
    return dladdr(reinterpret_cast<const void*>(getauxval(AT_BASE)), &found) ? found.dli_fname : "";
}

TEST_F(StartUpSecurity, AToolThatIsStartedUnderAnotherNameIsTheSame) {
    allowOnly({"MoonPhase"});
    fs::create_symlink(timer_.program(), home_.path() / "link");
    fs::create_directory_symlink(timer_.path(), home_.path() / "Other.app");
    const std::vector<std::pair<std::string, std::vector<std::string>>> starts = {
        {home_.path() / "link", {}},
        {home_.path() / "Other.app/Contents/Linux/tool", {}},
        {"/bin/bash", {"-c", "exec -a /somewhere/else \"$0\"", timer_.program()}},
        {"/bin/bash", {"-c", "exec -a '' \"$0\"", timer_.program()}},
        {pathOfLoader(), {timer_.program()}},
    };
    for (const auto& [program, arguments] : starts) {
        SCOPED_TRACE(program);
        ChildProcess process = ChildProcess::program(
            program, arguments,
            {.standardError = home_.path() / "log", .mounts = &mounts_, .ownSession = true});
        EXPECT_THAT(courseOf(process).lines, IsEmpty());
    }
    EXPECT_EQ(countInLog(kRestrictedLine), starts.size());
}

TEST_F(StartUpSecurity, NoHelperIsTakenFromThePath) {
    allowOnly({"MoonPhase"});
    const fs::path programs = home_.path() / "bin";
    const fs::path mark = home_.path() / "was run";
    fs::create_directory(programs);
    for (const char* name : {"utilia-alert", "zenity", "kdialog", "xmessage", "sh", "tar"}) {
        std::ofstream(programs / name) << "#!/bin/sh\n: > '" << mark.string() << "'\n";
        fs::permissions(programs / name, fs::perms(0755));
    }
    fs::remove(framework() / "Resources/UtiliaCommon.bundle/Contents/Linux/utilia-alert");
    expectRestricted({{"PATH", programs.string()}, {"DISPLAY", ":no-display"}});
    EXPECT_FALSE(fs::exists(mark));
}

TEST_F(StartUpSecurity, ATruthInTheUsersPreferencesDoesNotCount) {
    allowOnly({"MoonPhase"});
    for (const char* domain : {kAgent, kListed}) {
        const auto preferences = platform::UserDefaults::initWithDomain(domain);
        preferences->setObject(Array{"Timer"}, "WhiteToolsList");
        preferences->setObject(false, "NeedAgentForWork");
    }
    expectRestricted({});
}

// ---- nor can the restriction's own file keep a tool from starting

TEST_F(StartUpSecurity, SettingsThatCannotBeReadRestrictNothing) {
    const auto forms = std::vector<std::pair<const char*, std::function<void(const fs::path&)>>>{
        {"empty", [](const fs::path& path) { std::ofstream(path) << ""; }},
        {"half", [](const fs::path& path) { std::ofstream(path) << R"({"WhiteToolsList": ["Ti)"; }},
        {"bytes", [](const fs::path& path) { std::ofstream(path) << "\xff\xfe\0\x01"; }},
        {"an array", [](const fs::path& path) { std::ofstream(path) << R"(["Timer"])"; }},
        {"nested",
         [](const fs::path& path) {
             std::ofstream(path) << R"({"WhiteToolsList": )" << std::string(100'000, '[');
         }},
        {"huge",
         [](const fs::path& path) {
             std::ofstream(path) << "{";
             fs::resize_file(path, std::uintmax_t{1} << 33);
         }},
        {"a named pipe", [](const fs::path& path) { ASSERT_EQ(mkfifo(path.c_str(), 0644), 0); }},
        {"a folder", [](const fs::path& path) { fs::create_directory(path); }},
        {"a link to itself", [](const fs::path& path) { fs::create_symlink(path, path); }},
        {"a terminal", [](const fs::path& path) { fs::create_symlink("/dev/tty", path); }},
        {"no end", [](const fs::path& path) { fs::create_symlink("/dev/zero", path); }},
    };
    mounts_.writeSettings("{}");
    for (const auto& [what, make] : forms) {
        SCOPED_TRACE(what);
        fs::remove_all(mounts_.settingsFile());
        make(mounts_.settingsFile());
        expectToReachMain();
    }
}

TEST_F(StartUpSecurity, AToolStartsWithoutAnyFolderOfTheUser) {
    const std::string nowhere = "/proc/nowhere";
    for (const char* value : {kUnset, "", nowhere.c_str(), "relative"}) {
        SCOPED_TRACE(value);
        Environment environment{{"TMPDIR", home_.path().string()}};
        for (const char* name : {"HOME", "XDG_RUNTIME_DIR", "XDG_CONFIG_HOME", "XDG_DATA_HOME",
                                 "XDG_STATE_HOME", "XDG_CACHE_HOME", "XDG_DATA_DIRS", "PATH"})
            environment[name] = value;
        expectToReachMain(environment);
    }
}

TEST_F(StartUpSecurity, AToolStartsWhereItsPreferencesCannotBeRead) {
    const fs::path file = home_.config() / "korvane-utilia" / "com.korvane.utilia.plist";
    fs::remove(file);
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    expectToReachMain();
    fs::remove(file);
    fs::create_directory(file);
    expectToReachMain();
    fs::remove_all(home_.config());
    std::ofstream(home_.config()) << "no folder";
    expectToReachMain();
}

}  // namespace
}  // namespace utilia::test
