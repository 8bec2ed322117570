#include "Benchmarks/Tools/ToolMeasures.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <vector>

#include <unistd.h>

#include "Benchmarks/Messages/BusHost.h"
#include "Benchmarks/Tools/Panel.h"
#include "Benchmarks/Tools/RunningProgram.h"
#include "Common/UtiliaCommon/AdminSettings/ToolSets.h"

namespace utilia::bench {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kTools = 50;
// Nobody who is at rest is woken for so long: before wake-ups are counted, and before memory is.
constexpr double kLongPause = 1.5;
constexpr double kShortPause = 0.3;

double millisecondsSince(std::uint64_t begin) {
    return static_cast<double>(nanoseconds() - begin) / 1e6;
}

// A session with an agent and a panel, and whatever tools are started in it.
class Session final {
public:
    explicit Session(const std::string& folder)
        : bus_(BusKind::Daemon, folder),
          panel_(bus_.address()), environment_{{"DBUS_SESSION_BUS_ADDRESS", bus_.address()},
                                               {"QT_QPA_PLATFORM", "offscreen"},
                                               {"LANGUAGE", "en"}} {}

    Panel& panel() { return panel_; }
    RunningProgram& agent() { return *agent_; }

    void startAgent() {
        agent_.reset();
        agent_.emplace(UTILIA_AGENT_PROGRAM, environment_);
    }
    RunningProgram start(const fs::path& program) const {
        return RunningProgram(program, environment_);
    }

    // The desktop entry by which the agent finds an application.
    static void install(const std::string& identifier, const fs::path& program) {
        const fs::path entries = fs::path(std::getenv("XDG_DATA_HOME")) / "applications";
        fs::create_directories(entries);
        std::ofstream(entries / (identifier + ".desktop"))
            << "[Desktop Entry]\nType=Application\nName=" << identifier << "\nExec=\""
            << program.string() << "\"\n";
    }

    // Until what the start left to be done is over.
    void waitForQuiet(const RunningProgram& program, double pause) {
        const std::uint64_t begin = nanoseconds();
        for (long before = -1; before != program.wakeUps();) {
            if (millisecondsSince(begin) > 20'000) return;  // the figures will show it
            before = program.wakeUps();
            panel_.serve(pause);
        }
    }

private:
    const BusHost bus_;
    Panel panel_;
    const std::map<std::string, std::string> environment_;
    std::optional<RunningProgram> agent_;
};

// A bundle around the program beside this one; answers its program.
fs::path makeTool(const fs::path& folder, const std::string& identifier) {
    const std::string name = identifier.substr(identifier.rfind('.') + 1);
    const fs::path contents = folder / (name + ".app") / "Contents";
    const fs::path program = contents / "Linux" / name;
    fs::create_directories(program.parent_path());
    std::ofstream(contents / "Info.plist")
        << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>\n"
        << "<key>CFBundleIdentifier</key><string>" << identifier << "</string>\n"
        << "<key>CFBundleName</key><string>" << name << "</string>\n"
        << "<key>CFBundleExecutable</key><string>" << name << "</string>\n</dict></plist>\n";
    fs::copy_file(fs::read_symlink("/proc/self/exe").parent_path() / "utilia-menu-tool", program);
    Session::install(identifier, program);
    return program;
}

std::vector<fs::path> makeTools(const fs::path& folder) {
    std::vector<fs::path> programs;
    for (const std::string& identifier :
         ToolSets::createSharedInstance()->currentUnrestrictedToolSet()) {
        if (programs.size() < kTools) programs.push_back(makeTool(folder, identifier));
    }
    if (programs.size() < kTools) fail("the catalogue has too few tools");
    return programs;
}

struct Crowd {
    double ticks = 0;
    double wakeUps = 0;
    double proportionalKiB = 0;
    double privateKiB = 0;

    static Crowd of(const std::vector<RunningProgram>& programs) {
        Crowd sum;
        for (const RunningProgram& one : programs) {
            const auto memory = one.memory();
            sum.ticks += static_cast<double>(one.ticks());
            sum.wakeUps += static_cast<double>(one.wakeUps());
            sum.proportionalKiB += memory.proportionalKiB;
            sum.privateKiB += memory.privateKiB;
        }
        return sum;
    }
};

}  // namespace

Figures measureFiftyTools(const Settings& settings) {
    const double seconds = settings.seconds * 20;
    const fs::path folder = settings.folder;
    const std::vector<fs::path> programs = makeTools(folder / "Tools");
    Session session(settings.folder);
    Panel& panel = session.panel();
    const auto haveAll = [&] { return panel.toolsThatSay("ready") == kTools; };

    session.startAgent();
    session.waitForQuiet(session.agent(), kShortPause);
    const auto alone = session.agent().memory();
    const std::uint64_t begin = nanoseconds();
    std::vector<RunningProgram> tools;
    tools.reserve(kTools);
    for (const fs::path& program : programs) tools.push_back(session.start(program));
    panel.serveUntil(haveAll);
    const double started = millisecondsSince(begin);

    session.startAgent();  // again: the tools run already
    const std::uint64_t restart = nanoseconds();
    panel.serveUntil(haveAll);
    const double listed = millisecondsSince(restart);

    const RunningProgram& agent = session.agent();
    session.waitForQuiet(agent, kLongPause);
    const Crowd crowd = Crowd::of(tools);
    const auto memory = agent.memory();
    const long ticks = agent.ticks(), wakeUps = agent.wakeUps();
    usleep(static_cast<useconds_t>(seconds * 1e6));
    const auto quietTicks = static_cast<double>(agent.ticks() - ticks);
    const auto quietWakeUps = static_cast<double>(agent.wakeUps() - wakeUps);
    const Crowd later = Crowd::of(tools);

    // Each at a moment of its own, as tools do that know nothing of each other.
    for (const RunningProgram& tool : tools) {
        tool.signal(SIGUSR1);
        panel.serve(1.0 / kTools);
    }
    panel.serveUntil([&] { return panel.toolsThatSay("ready") == 0; });
    const long busyTicks = agent.ticks();
    const std::size_t updates = panel.updates();
    panel.serve(seconds);
    const auto busy = static_cast<double>(agent.ticks() - busyTicks);
    const auto told = static_cast<double>(panel.updates() - updates);
    return {{"quiet_agent_ticks", quietTicks},
            {"quiet_agent_wakeups", quietWakeUps},
            {"quiet_tools_wakeups", later.wakeUps - crowd.wakeUps},
            {"busy_agent_percent", busy / seconds},
            {"busy_updates_per_second", told / seconds},
            {"all_started_ms", started},
            {"all_listed_ms", listed},
            {"agent_alone_kib", alone.proportionalKiB},
            {"agent_kib", memory.proportionalKiB},
            {"agent_private_kib", memory.privateKiB},
            {"tool_kib", crowd.proportionalKiB / kTools},
            {"tool_private_kib", crowd.privateKiB / kTools},
            {"tools_kib", crowd.proportionalKiB},
            {"everything_kib", crowd.proportionalKiB + memory.proportionalKiB}};
}

Figures measureTool(const std::string& name, const std::string& program, const Settings& settings) {
    const fs::path path =
        fs::path(UTILIA_APPLICATIONS) / (name + ".app") / "Contents/Linux" / program;
    std::string identifier = "com.korvane.utilia." + name;
    std::erase(identifier, ' ');
    Session::install(identifier, path);
    Session session(settings.folder);
    Panel& panel = session.panel();
    session.startAgent();
    session.waitForQuiet(session.agent(), kShortPause);
    std::vector<double> shown, proportional, own;
    const int rounds = std::max(2, static_cast<int>(settings.seconds * 10));
    for (int i = 0; i < rounds; ++i) {
        const std::uint64_t begin = nanoseconds();
        const RunningProgram tool = session.start(path);
        panel.serveUntil([&] { return panel.runs(identifier); });
        shown.push_back(millisecondsSince(begin));
        session.waitForQuiet(tool, kShortPause);
        const auto memory = tool.memory();
        proportional.push_back(memory.proportionalKiB);
        own.push_back(memory.privateKiB);
        tool.signal(SIGTERM);
        panel.serveUntil([&] { return !panel.runs(identifier); });
    }
    return {{"until_shown_ms", percentile(shown, 50)},
            {"proportional_kib", percentile(proportional, 50)},
            {"private_kib", percentile(own, 50)}};
}

}  // namespace utilia::bench
