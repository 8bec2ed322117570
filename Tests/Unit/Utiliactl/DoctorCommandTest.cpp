#include <algorithm>
#include <map>
#include <optional>

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Common/Platform/LoginItems.h"
#include "Common/Platform/UniqueFd.h"
#include "Common/UtiliaCommon/LoginItems/UtiliaToolLauncher.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/PrivateBus.h"
#include "Tests/Support/PrivateMounts.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Unit/Utiliactl/ControlProgram.h"

namespace utilia {
namespace {

using test::ChildProcess;
using test::ControlAnswer;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

// A program that says it is a panel's watcher of status icons. Arguments: address, "true" or "false"
// for whether a panel shows them.
constexpr const char* kWatcher = R"(
import os, sys
from gi.repository import Gio, GLib
node = Gio.DBusNodeInfo.new_for_xml('''<node><interface name="org.kde.StatusNotifierWatcher">
<property name="IsStatusNotifierHostRegistered" type="b" access="read"/></interface></node>''')
bus = Gio.DBusConnection.new_for_address_sync(sys.argv[1],
    Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION, None, None)
bus.register_object('/StatusNotifierWatcher', node.interfaces[0], None,
    lambda *_: GLib.Variant('b', sys.argv[2] == 'true'), None)
Gio.bus_own_name_on_connection(bus, 'org.kde.StatusNotifierWatcher', 0,
    lambda *_: os.write(3, b'watching\n'), None)
GLib.MainLoop().run()
)";

class DoctorCommand : public test::ControlProgramTest {
protected:
    // What is said of one thing; several of the same name are joined.
    struct Said {
        std::string severity;
        std::string message;
        std::string advice;
    };
    std::vector<Said> all(const std::string& check) {
        std::vector<Said> found;
        for (const auto& entry : answer_["findings"]) {
            if (entry["check"] != check) continue;
            found.push_back({entry["severity"], entry["message"],
                             entry["advice"].is_null() ? "" : entry["advice"].get<std::string>()});
        }
        return found;
    }
    Said the(const std::string& check) {
        const auto found = all(check);
        EXPECT_EQ(found.size(), 1u) << check << " in " << answer_;
        return found.empty() ? Said() : found.front();
    }
    // Asks; a private /etc keeps the machine's settings out.
    void examine(std::map<std::string, std::string> environment = {}) {
        test::ChildProcessOptions options;
        options.environment = std::move(environment);
        options.environment.emplace("DBUS_SESSION_BUS_ADDRESS", "\x01");
        options.standardOutput = home_.path() / "out";
        options.standardError = home_.path() / "err";
        options.mounts = &mounts_;
        fs::remove(options.standardOutput);
        fs::remove(options.standardError);
        auto child = ChildProcess::program(program_, {"doctor", "--json"}, options);
        status_ = child.waitForExit().value_or(-1);
        answer_ = Json::parse(contentOf(options.standardOutput));
        log_ = contentOf(options.standardError);
        EXPECT_EQ(answer_["healthy"], status_ == 0);
        for (const auto& finding : answer_["findings"])
            EXPECT_NE(finding["advice"].is_null(), finding["severity"] != "ok") << finding;
    }
    // For people.
    std::string text() {
        test::ChildProcessOptions options;
        options.environment["DBUS_SESSION_BUS_ADDRESS"] = "\x01";
        options.standardOutput = home_.path() / "out";
        options.mounts = &mounts_;
        auto child = ChildProcess::program(program_, {"doctor"}, options);
        status_ = child.waitForExit().value_or(-1);
        return contentOf(options.standardOutput);
    }
    ChildProcess watcher(const std::string& address, bool hasHost) {
        auto child = ChildProcess::program("/usr/bin/python3",
                                           {"-c", kWatcher, address, hasHost ? "true" : "false"},
                                           {.diesWithTest = true});
        EXPECT_EQ(child.waitForLine(), "watching");
        return child;
    }

    test::PrivateMounts mounts_;
    std::string program_ = test::places::kControlProgram;
    Json answer_;
    std::string log_;
    int status_ = -1;
};

TEST_F(DoctorCommand, FindsNothingThatDoesNotWorkForANewUser) {
    examine();
    EXPECT_EQ(status_, 0) << answer_;
    EXPECT_EQ(log_, "");
    EXPECT_EQ(the("session bus").severity, "warning");
    EXPECT_THAT(the("session bus").advice, HasSubstr("dbus-run-session"));
    EXPECT_TRUE(all("status icons").empty()) << "nobody could show them";
    EXPECT_EQ(the("runtime folder").severity, "ok");
    EXPECT_EQ(the("agent").severity, "warning");
    EXPECT_THAT(the("agent").message, HasSubstr("not installed"));
    EXPECT_EQ(the("ports").message, "0 in use");
    EXPECT_EQ(the("preferences").severity, "ok");
    EXPECT_THAT(the("shared store").message,
                StartsWith("0 keys in " + home_.groupContainer().string()));
    EXPECT_THAT(the("disk space").message, HasSubstr(" MiB free at "));
    EXPECT_EQ(the("start at login").message, "no tool is to be started");
    EXPECT_THAT(the("settings").message, EndsWith("does not exist: nothing is restricted"));
    EXPECT_EQ(the("modules").severity, "ok");
}

TEST_F(DoctorCommand, TellsAPersonWhatToDo) {
    const std::string said = text();
    EXPECT_EQ(status_, 0);
    EXPECT_THAT(said, StartsWith("warning  session bus     this session has no bus: "));
    EXPECT_THAT(said, HasSubstr("\nok       runtime folder  " + home_.runtime().string()));
    EXPECT_THAT(said, HasSubstr("\n                         start a session with "))
        << "advice is folded";
    EXPECT_THAT(said, Not(HasSubstr("Nothing needs to be done."))) << "there are warnings";
}

TEST_F(DoctorCommand, LooksForAPanelThatShowsStatusIcons) {
    const test::PrivateBus bus(home_.runtime() / "bus");
    examine();
    EXPECT_EQ(the("session bus").severity, "ok");
    EXPECT_EQ(the("status icons").severity, "warning");
    EXPECT_THAT(the("status icons").advice, HasSubstr("--show-ui"));
    {
        const auto withoutPanel = watcher(bus.address(), false);
        examine();
        EXPECT_EQ(the("status icons").severity, "warning");
    }
    const auto withPanel = watcher(bus.address(), true);
    examine();
    EXPECT_EQ(the("status icons").severity, "ok");
}

TEST_F(DoctorCommand, WaitsForNoBusThatDoesNotAnswer) {
    test::PrivateBus bus(home_.runtime() / "bus");
    bus.stop();
    examine();
    bus.resume();
    EXPECT_EQ(status_, 0);
    EXPECT_EQ(the("session bus").severity, "warning");
    EXPECT_THAT(the("session bus").message, EndsWith(": it does not answer"));
}

TEST_F(DoctorCommand, FindsARuntimeFolderOfNobodysUse) {
    const fs::path missing = home_.path() / "missing";
    examine({{"XDG_RUNTIME_DIR", missing.string()}});
    EXPECT_EQ(status_, 1);
    EXPECT_EQ(the("runtime folder").severity, "error");
    EXPECT_EQ(the("runtime folder").message, "it cannot be used: mkdir " + missing.string() +
                                                 "/com.korvane.utilia: No such file or directory");
    EXPECT_EQ(log_, "") << "all is in the answer";

    const fs::path open = home_.runtime() / "com.korvane.utilia";
    fs::create_directory(open);
    fs::permissions(open, fs::perms(0755));
    examine();
    EXPECT_THAT(the("runtime folder").message,
                HasSubstr(open.string() + ": other users may enter it"));
    EXPECT_EQ(log_, "");
}

TEST_F(DoctorCommand, NamesTheHolderOfALockThatIsNotGivenUp) {
    fs::create_directories(home_.groupContainer());
    const platform::UniqueFd folder(
        open(home_.groupContainer().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_EQ(flock(folder.get(), LOCK_EX), 0);
    examine();
    EXPECT_EQ(status_, 1);
    EXPECT_EQ(the("shared store").severity, "error");
    EXPECT_THAT(the("shared store").message, HasSubstr(home_.groupContainer().string()));
    EXPECT_THAT(the("shared store").message,
                EndsWith(": still held by process " + std::to_string(getpid()) + " after 3000 ms"));
    EXPECT_EQ(log_, "") << "all is in the answer";
}

TEST_F(DoctorCommand, PointsAtWhatWasSetAside) {
    examine();
    const fs::path folder = the("preferences").message;
    fs::create_directories(folder);
    const fs::path damaged = folder / "com.korvane.utilia.plist.damaged-2026-11-21";
    std::ofstream(damaged) << "?";
    examine();
    EXPECT_EQ(status_, 0);
    const auto found = all("preferences");
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[1].severity, "notice");
    EXPECT_THAT(found[1].message, EndsWith(damaged.string()));
}

TEST_F(DoctorCommand, FindsAReadOnlyHome) {
    for (const auto& folder : {home_.config(), home_.data(), home_.state()}) {
        fs::create_directories(folder);
        mounts_.makeReadOnly(folder);
    }
    examine();
    EXPECT_EQ(status_, 1);
    for (const char* check : {"preferences", "shared store", "logs"}) {
        EXPECT_EQ(the(check).severity, "error");
        EXPECT_THAT(the(check).message, HasSubstr("cannot be written"));
        EXPECT_THAT(the(check).advice, HasSubstr("read-only"));
    }
}

TEST_F(DoctorCommand, FindsAStoreWhoseInnerFolderCannotBeWritten) {
    const fs::path folder = home_.groupContainer() / "Library/Preferences";
    fs::create_directories(folder);
    mounts_.makeReadOnly(folder);
    examine();
    EXPECT_EQ(status_, 1);
    EXPECT_EQ(the("shared store").severity, "error");
    EXPECT_THAT(the("shared store").message, StartsWith(folder.string() + " cannot be written"));
}

TEST_F(DoctorCommand, FindsAFolderOfLoginThatCannotBeWritten) {
    const fs::path folder = home_.config() / "autostart";
    fs::create_directories(folder);
    examine();
    EXPECT_EQ(the("start at login").severity, "ok");
    mounts_.makeReadOnly(folder);
    examine();
    EXPECT_EQ(status_, 1);
    EXPECT_EQ(the("start at login").severity, "error");
    EXPECT_EQ(the("start at login").message,
              folder.string() + " cannot be written; what is started at login cannot be changed");
    EXPECT_EQ(the("preferences").severity, "ok") << "beside it";
}

TEST_F(DoctorCommand, ChangesNothing) {
    const auto files = [&] {
        std::map<fs::path, std::string> found;
        for (const auto& folder : {home_.config(), home_.data(), home_.state()}) {
            if (!fs::exists(folder)) continue;
            for (const auto& entry : fs::recursive_directory_iterator(folder))
                found[entry.path()] = entry.is_regular_file() ? contentOf(entry.path()) : "";
        }
        return found;
    };
    const auto none = files();
    examine();
    EXPECT_EQ(files(), none) << "of a new user";

    const fs::path preferences = home_.config() / "korvane-utilia/com.korvane.utilia.plist";
    const fs::path store =
        home_.groupContainer() / "Library/Preferences/7QK2M9ZD4R.com.korvane.utilia.plist";
    for (const auto& file : {preferences, store}) {
        fs::create_directories(file.parent_path());
        std::ofstream(file) << "no property list";
    }
    const auto damaged = files();
    examine();
    EXPECT_EQ(status_, 1);
    EXPECT_EQ(files(), damaged);
    const auto found = all("preferences");
    ASSERT_EQ(found.size(), 2u) << answer_;
    EXPECT_THAT(found[1].message, StartsWith(preferences.string()));
    EXPECT_THAT(found[1].advice, HasSubstr("com.korvane.utilia.plist.bak"));
    EXPECT_EQ(the("shared store").severity, "error");
    EXPECT_THAT(the("shared store").message, StartsWith(store.string()));
}

TEST_F(DoctorCommand, AdvisesOnEntriesOfTheSessionThatLeadNowhere) {
    const fs::path autostart = home_.config() / "autostart";
    fs::create_directories(autostart);
    const auto write = [&](const std::string& identifier) {
        std::ofstream(autostart / (identifier + ".desktop"))
            << "[Desktop Entry]\nType=Application\nName=X\nExec=/nonexistent/korvane/program\n";
    };
    write("somebody-else");
    examine();
    EXPECT_EQ(the("start at login").severity, "ok") << "not ours";
    write("com.korvane.utilia");
    examine();
    EXPECT_EQ(the("start at login").severity, "error");
    EXPECT_THAT(the("start at login").advice, HasSubstr("\"Open Korvane Utilia at login\""))
        << "as it is called in the agent's window";
    fs::remove(autostart / "com.korvane.utilia.desktop");
    write("com.korvane.utilia.ToolLauncher");
    examine();
    EXPECT_THAT(the("start at login").advice, HasSubstr("utiliactl login add TOOL"));
    fs::remove_all(autostart);
    std::ofstream(autostart) << "a file in the folder's place";
    examine();
    EXPECT_EQ(the("start at login").severity, "error");
}

// What a lock file that lies there means: the system ends a lock with its holder.
TEST_F(DoctorCommand, TakesLockFilesThatNobodyHoldsForNothing) {
    fs::create_directories(home_.groupContainer());
    fs::create_directories(home_.config() / "korvane-utilia");
    std::ofstream(home_.config() / "korvane-utilia/com.korvane.utilia.plist.lock");
    auto holder =
        ChildProcess::program("/bin/sh",
                              {"-c", "exec 9<\"$1\"; flock 9; echo held >&3; exec sleep 600", "sh",
                               home_.groupContainer().string()},
                              {.diesWithTest = true});
    ASSERT_EQ(holder.waitForLine(), "held");
    holder.kill();
    examine();
    EXPECT_EQ(status_, 0) << answer_;
    EXPECT_EQ(the("shared store").severity, "ok");
}

TEST_F(DoctorCommand, SaysThatThereIsNoRoom) {
    fs::create_directories(home_.groupContainer());
    mounts_.limitSpace(home_.groupContainer().string(), 1024 * 1024);
    examine();
    EXPECT_EQ(status_, 1);
    EXPECT_EQ(the("disk space").severity, "error");
    EXPECT_THAT(the("disk space").message, StartsWith("1 MiB free at "));
}

TEST_F(DoctorCommand, ChecksWhatIsStartedAtLogin) {
    test::TestBundle agent(home_,
                           {.name = "Korvane Utilia", .bundleIdentifier = "com.korvane.utilia"});
    agent.install("none");
    const auto launcherFolder = fs::path(agent.path()) / "Contents/Applications";
    test::TestBundle launcher(home_, {.name = "Utilia Tool Launcher",
                                      .bundleIdentifier = "com.korvane.utilia.ToolLauncher",
                                      .folder = launcherFolder});
    test::TestBundle timer(home_,
                           {.name = "Timer", .bundleIdentifier = "com.korvane.utilia.Timer"});
    timer.install("none");
    ASSERT_TRUE(UtiliaToolLauncher::addToolToLaunchAtLogin("com.korvane.utilia.Timer"));
    examine();
    EXPECT_EQ(the("start at login").severity, "ok") << answer_;
    EXPECT_EQ(the("agent").severity, "notice") << "it is installed and does not run";

    // The tool goes: a warning names the command that helps.
    fs::rename(timer.path(), fs::path(timer.path()).replace_extension("gone"));
    examine();
    EXPECT_EQ(the("start at login").severity, "warning");
    EXPECT_THAT(the("start at login").advice,
                HasSubstr("utiliactl login remove com.korvane.utilia.Timer"));
    fs::rename(fs::path(timer.path()).replace_extension("gone"), timer.path());

    // The session forgets the launcher: so does the command that is named.
    for (const auto& entry : fs::directory_iterator(home_.config() / "autostart"))
        fs::remove(entry.path());
    examine();
    EXPECT_EQ(status_, 1);
    EXPECT_THAT(the("start at login").message, EndsWith("the session does not start the launcher"));
    EXPECT_EQ(the("start at login").advice, "utiliactl login add com.korvane.utilia.Timer");
    EXPECT_EQ(run({"login", "add", "com.korvane.utilia.Timer"}).status, 0);
    examine();
    EXPECT_EQ(the("start at login").severity, "ok");

    // Half an agent, and none.
    fs::remove_all(launcherFolder);
    examine();
    EXPECT_EQ(status_, 1);
    EXPECT_THAT(the("start at login").message,
                HasSubstr("the launcher is missing: " + agent.path()));
    fs::remove_all(agent.path());
    examine();
    EXPECT_THAT(the("start at login").message, HasSubstr("no agent is installed"));
}

TEST_F(DoctorCommand, NamesTheLineOfTheSettingsThatIsWrong) {
    mounts_.writeSettings("{\n  \"WhiteToolsList\": [\n");
    examine();
    EXPECT_EQ(status_, 1);
    const auto found = all("settings");
    ASSERT_FALSE(found.empty());
    EXPECT_EQ(found[0].severity, "error");
    EXPECT_THAT(found[0].message, StartsWith("/etc/com.korvane.utilia/settings.conf, line "));
}

TEST_F(DoctorCommand, NamesTheModulesThatCannotBeLoaded) {
    // The same program where a part of the framework's bundle is missing.
    const fs::path bin = fs::path(test::places::kControlProgram).parent_path();
    const fs::path library = bin.parent_path() / UTILIA_LIBRARY_FOLDER;
    fs::create_directories(home_.path() / "copy/bin");
    fs::copy_file(test::places::kControlProgram, home_.path() / "copy/bin/utiliactl");
    const fs::path copy = home_.path() / "copy" / UTILIA_LIBRARY_FOLDER;
    fs::create_directories(copy);
    fs::copy(library / "UtiliaCommon.framework", copy / "UtiliaCommon.framework",
             fs::copy_options::recursive);
    const fs::path modules = copy / "UtiliaCommon.framework/Modules";
    fs::remove(modules / "Icons.so");
    fs::remove(modules / "Desktop.so");
    std::ofstream(modules / "Desktop.so") << "no library";
    program_ = home_.path() / "copy/bin/utiliactl";
    examine();
    EXPECT_EQ(status_, 1);
    const auto found = all("modules");
    ASSERT_EQ(found.size(), 2u) << answer_;
    EXPECT_THAT(found[0].message, HasSubstr((modules / "Desktop.so").string()));
    EXPECT_THAT(found[1].message, HasSubstr((modules / "Icons.so").string()));
    EXPECT_THAT(found[1].advice, HasSubstr("icons of tools"));
}

TEST_F(DoctorCommand, NamesTheProgramsThatAreMissing) {
    examine({{"PATH", home_.path().string()}});
    const auto found = all("programs");
    EXPECT_EQ(status_, 0);
    ASSERT_EQ(found.size(), 3u);
    EXPECT_THAT(found[1].message, StartsWith("bsdtar is not installed"));
    EXPECT_THAT(found[1].advice, HasSubstr("libarchive-tools"));
}

}  // namespace
}  // namespace utilia
