#include <optional>

#include <nlohmann/json.hpp>

#include "Tests/Support/Places.h"
#include "Tests/Support/PrivateBus.h"
#include "Tests/Unit/Utiliactl/ControlProgram.h"

namespace utilia {
namespace {

using test::ChildProcess;
using testing::EndsWith;
using testing::HasSubstr;

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

// A program that publishes tools as the agent does, and says each of the parent's lines as a signal:
// "changed TEXT", "removed".
constexpr const char* kAgent = R"(
import os, sys, threading
from gi.repository import Gio, GLib
node = Gio.DBusNodeInfo.new_for_xml('''<node><interface name="com.korvane.utilia.Tools1">
<method name="List"><arg type="aa{sv}" direction="out"/></method></interface></node>''')
def tool(text, status=1, condition='ready'):
    return {'identifier': GLib.Variant('s', 'com.korvane.utilia.Timer'), 'name': GLib.Variant('s', 'Timer'),
            'path': GLib.Variant('s', '/Timer.app'), 'condition': GLib.Variant('s', condition),
            'reason': GLib.Variant('s', ''), 'running': GLib.Variant('b', True),
            'status': GLib.Variant('t', status), 'text': GLib.Variant('s', text)}
bus = Gio.DBusConnection.new_for_address_sync(sys.argv[1],
    Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION, None, None)
def call(connection, sender, path, interface, method, parameters, invocation):
    invocation.return_value(GLib.Variant('(aa{sv})', ([tool('0:41')],)))
bus.register_object('/com/korvane/utilia/Tools', node.interfaces[0], call, None, None)
def emit(name, value):
    bus.emit_signal(None, '/com/korvane/utilia/Tools', 'com.korvane.utilia.Tools1', name, value)
def orders():
    with os.fdopen(os.dup(3)) as lines:
        for line in lines:
            word, _, text = line.rstrip('\n').partition(' ')
            if word == 'changed': emit('ToolChanged', GLib.Variant('(a{sv})', (tool(text),)))
            if word == 'restricted': emit('ToolChanged', GLib.Variant('(a{sv})', (tool('', 0, 'restricted'),)))
            if word == 'removed': emit('ToolRemoved', GLib.Variant('(s)', ('com.korvane.utilia.Timer',)))
    os._exit(0)
Gio.bus_own_name_on_connection(bus, 'com.korvane.utilia', 0,
    lambda *_: (os.write(3, b'published\n'), threading.Thread(target=orders).start()), None)
GLib.MainLoop().run()
)";

class WatchCommand : public test::ControlProgramTest {
protected:
    ChildProcess agent() const {
        auto child = ChildProcess::program("/usr/bin/python3", {"-c", kAgent, bus_->address()},
                                           {.diesWithTest = true});
        EXPECT_EQ(child.waitForLine(), "published");
        return child;
    }
    // Its lines come through the channel, as a shell's descriptor 1 leads there.
    ChildProcess watch(const std::string& option = "") const {
        return ChildProcess::program("/bin/sh",
                                     {"-c", "exec \"$0\" watch $1 >&3 2>\"$2\"",
                                      test::places::kControlProgram, option, errors()},
                                     {.diesWithTest = true});
    }
    std::string errors() const { return home_.path() / "err"; }

    std::optional<test::PrivateBus> bus_{home_.runtime() / "bus"};
};

TEST_F(WatchCommand, FollowsTheAgentAsItComesAndGoes) {
    auto watcher = watch();
    EXPECT_EQ(watcher.waitForLine(), "The agent does not run.");
    {
        auto first = agent();
        EXPECT_EQ(watcher.waitForLine(), "The agent runs.");
        EXPECT_EQ(watcher.waitForLine(), "active      Timer               0:41");
        first.say("changed 0:42");
        EXPECT_EQ(watcher.waitForLine(), "active      Timer               0:42");
        first.say("changed odd\x1b[2Jtext");
        EXPECT_EQ(watcher.waitForLine(), "active      Timer               odd?[2Jtext");
        first.say("restricted");
        EXPECT_EQ(watcher.waitForLine(), "restricted  Timer");
        first.say("removed");
        EXPECT_EQ(watcher.waitForLine(), "removed     com.korvane.utilia.Timer");
        first.kill();
    }
    EXPECT_EQ(watcher.waitForLine(), "The agent does not run.");
    const auto second = agent();
    EXPECT_EQ(watcher.waitForLine(), "The agent runs.");
    EXPECT_EQ(watcher.waitForLine(), "active      Timer               0:41");
}

TEST_F(WatchCommand, WritesOneObjectALineForPrograms) {
    auto first = agent();
    auto watcher = watch("--json");
    EXPECT_EQ(watcher.waitForLine(), R"({"event":"agent","running":true})");
    EXPECT_EQ(watcher.waitForLine(),
              R"({"event":"tool","identifier":"com.korvane.utilia.Timer","name":"Timer",)"
              R"("path":"/Timer.app","condition":"ready","reason":"","running":true,"status":1,)"
              R"("text":"0:41"})");
    first.say("removed");
    EXPECT_EQ(watcher.waitForLine(),
              R"({"event":"removed","identifier":"com.korvane.utilia.Timer"})");
    first.kill();
    EXPECT_EQ(watcher.waitForLine(), R"({"event":"agent","running":false})");
}

TEST_F(WatchCommand, EndsWithTheBus) {
    auto watcher = watch();
    EXPECT_EQ(watcher.waitForLine(), "The agent does not run.");
    bus_.reset();
    EXPECT_EQ(watcher.waitForExit(), 1);
    EXPECT_EQ(contentOf(errors()), "utiliactl: the session's bus has gone\n");
}

TEST_F(WatchCommand, SaysThatThereIsNoBus) {
    bus_.reset();
    fs::remove(home_.runtime() / "bus");
    EXPECT_THAT(refusal(1, {"watch"}), HasSubstr("this session has no bus"));
}

TEST_F(WatchCommand, EndsWhenNobodyReads) {
    const auto first = agent();
    auto child = ChildProcess::program("/bin/sh", {"-c", "exec \"$0\" watch >/dev/full 2>\"$1\"",
                                                   test::places::kControlProgram, errors()});
    EXPECT_EQ(child.waitForExit(), 1);
    EXPECT_EQ(contentOf(errors()), "utiliactl: write standard output: No space left on device\n");
}

}  // namespace
}  // namespace utilia
