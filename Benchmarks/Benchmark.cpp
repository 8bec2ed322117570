#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <optional>
#include <sstream>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Benchmarks/Events/EventMeasures.h"
#include "Benchmarks/Images/CodecMeasures.h"
#include "Benchmarks/Images/PdfMeasures.h"
#include "Benchmarks/Messages/MessageMeasures.h"
#include "Benchmarks/StartUp/ConstructorMeasures.h"
#include "Benchmarks/StartUp/LogoutMeasures.h"
#include "Benchmarks/StartUp/StartUpMeasures.h"
#include "Benchmarks/Stores/ResourceMeasures.h"
#include "Benchmarks/Stores/StoreMeasures.h"
#include "Benchmarks/Support/Goals.h"
#include "Benchmarks/Support/Results.h"
#include "Benchmarks/Tools/ToolMeasures.h"
#include "Benchmarks/Web/WebMeasures.h"

// The driver runs every measurement in a process of its own (itself, with --measure), in a private
// home, and takes the variants of a measurement in turns: what else the machine does then falls on
// all alike. The variants begin with another one in each repeat.

namespace fs = std::filesystem;

namespace utilia::bench {
namespace {

struct Measurement {
    std::string part;
    std::string name;
    std::string variant;
    std::function<Figures(const Settings&)> run;
};

using MakeChannel = std::unique_ptr<MessageChannel> (*)();

std::vector<Measurement> allMeasurements() {
    std::vector<Measurement> all;
    const std::pair<const char*, MakeChannel> channels[] = {{"utilia", makePortChannel},
                                                            {"socket", makeSocketChannel},
                                                            {"dbus-broker", makeBrokerChannel},
                                                            {"dbus-daemon", makeDaemonChannel}};
    const std::pair<const char*, std::size_t> sizes[] = {
        {"64 B", 64}, {"4 KiB", 4096}, {"64 KiB", 65536}, {"1 MiB", 1 << 20}};
    for (const auto& [label, size] : sizes) {
        for (const auto& [variant, make] : channels) {
            all.push_back({"messages", std::string("latency ") + label, variant,
                           [=, bytes = size, maker = make](const Settings& settings) {
                               return measureLatency(*maker(), bytes, settings);
                           }});
        }
    }
    all.push_back({"messages", "latency 1 MiB", "bare memory file", [](const Settings& settings) {
                       return measureLatency(*makeMemoryChannel(), 1 << 20, settings);
                   }});
    for (const auto& [label, size] : {sizes[0], sizes[1]}) {
        for (const auto& [variant, make] : channels) {
            if (make == makeSocketChannel) continue;
            all.push_back({"messages", std::string("50 senders ") + label, variant,
                           [=, bytes = size, maker = make](const Settings& settings) {
                               return measureFanIn(*maker(), bytes, 50, settings);
                           }});
        }
    }
    all.push_back({"store", "update", "in turns", measureUpdate});
    all.push_back({"store", "update in memory", "in turns", [](const Settings& settings) {
                       const MemoryFolder memory;
                       return measureUpdate(memory.settings(settings));
                   }});
    for (const char* store : {"utilia", "replace"}) {
        all.push_back({"store", "8 tight writers", store, [=](const Settings& settings) {
                           return measureTightWriters(store, settings);
                       }});
        all.push_back({"store", "8 tight writers in memory", store, [=](const Settings& settings) {
                           const MemoryFolder memory;
                           return measureTightWriters(store, memory.settings(settings));
                       }});
    }
    all.push_back({"store", "cached read", "utilia", measureCachedRead});
    for (const int records : {10, 100, 1000}) {
        all.push_back({"store", "list of schedules in memory", std::to_string(records) + " records",
                       [records](const Settings& settings) {
                           const MemoryFolder memory;
                           return measureScheduleList(records, memory.settings(settings));
                       }});
        all.push_back(
            {"store", "choosing a resource in memory", std::to_string(records) + " records",
             [=](const Settings& settings) { return measureResourceChoice(records, settings); }});
    }
    all.push_back({"store", "versions", "utilia", measureVersions});
    all.push_back({"startup", "start", "in turns", measureStart});
    all.push_back({"startup", "before main", "in turns", measureConstructor});
    all.push_back({"startup", "logout", "in turns", measureLogout});
    all.push_back({"web", "1000 small loads", "in turns", measureWebLoads});
    all.push_back({"images", "codecs", "in turns", measureCodecs});
    all.push_back({"images", "pdf pages", "in turns", measurePdfPages});
    for (const char* way : {"utilia", "utilia one page", "cairo", "magick"}) {
        all.push_back({"images", "pdf memory", way,
                       [=](const Settings& settings) { return measurePdfMemory(way, settings); }});
    }
    for (const int processes : {1, 32}) {
        const std::string name =
            std::to_string(processes) + (processes == 1 ? " process" : " processes");
        for (const char* log : {"utilia", "append", "by hand", "spdlog", "journald", "SQLite"}) {
            all.push_back({"events", name + ", in memory", log, [=](const Settings& settings) {
                               const MemoryFolder memory;
                               return measureEvents(log, processes, memory.settings(settings));
                           }});
            if (std::string_view(log) == "journald") continue;  // which is always in memory
            all.push_back({"events", name, log, [=](const Settings& settings) {
                               return measureEvents(log, processes, settings);
                           }});
        }
    }
    all.push_back({"events", "formatting ten attributes", "utilia", measureFormatting});
    all.push_back({"tools", "50 tools", "at once", measureFiftyTools});
    const std::pair<const char*, const char*> tools[] = {{"Timer", "timer"},
                                                         {"Moon Phase", "moon-phase"},
                                                         {"Keep Awake", "keep-awake"},
                                                         {"Screen Capture", "screen-capture"}};
    for (const auto& [name, program] : tools) {
        all.push_back(
            {"tools", "one tool", name, [bundle = name, file = program](const Settings& settings) {
                 return measureTool(bundle, file, settings);
             }});
    }
    return all;
}

constexpr const char* kParts[] = {"messages", "store",  "startup", "web",
                                  "images",   "events", "tools"};

struct Options {
    bool quick = false;
    std::string only;
    int repeats = 5;
    std::string output;
};

constexpr const char* kUsage = R"(Usage: scripts/benchmark [OPTIONS]

Measures the framework beside bare system calls (the limit) and other people's tools (the peers), in turns, and prints
medians, their spread, and which goals are met. The script installs the packages that are missing, builds the preset
"bench", and runs the program build/bench/bin/utilia-benchmark, which takes the same options.

Options:
  --quick           one short repeat: shows that everything runs; its figures mean little
  --only PART       messages, store, startup, web, images, events or tools
  --repeats N       how often each measurement is made (default 5)
  --output FILE     write the tables to FILE too
  --help            this text

The exit status is 0 when everything was measured, whether or not the goals are met; 1 when a measurement failed; 2 for
a wrong option.
)";

// A value that is wrong answers nothing.
std::optional<Options> parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        const bool hasValue = i + 1 < argc;
        if (option == "--quick") {
            options.quick = true;
            options.repeats = 1;
        } else if (option == "--only" && hasValue) {
            options.only = argv[++i];
            if (std::find(std::begin(kParts), std::end(kParts), options.only) == std::end(kParts))
                return std::nullopt;
        } else if (option == "--repeats" && hasValue) {
            options.repeats = std::atoi(argv[++i]);
            if (options.repeats < 1) return std::nullopt;
        } else if (option == "--output" && hasValue) {
            options.output = argv[++i];
        } else {
            return std::nullopt;
        }
    }
    return options;
}

fs::path ownPath() { return fs::read_symlink("/proc/self/exe"); }

// A private home in the folder, put into the environment of what is started from now on.
void enterHome(const fs::path& folder) {
    const std::pair<const char*, const char*> places[] = {
        {"HOME", "home"},          {"XDG_RUNTIME_DIR", "run"},  {"XDG_CONFIG_HOME", "config"},
        {"XDG_DATA_HOME", "data"}, {"XDG_STATE_HOME", "state"}, {"XDG_CACHE_HOME", "cache"}};
    for (const auto& [variable, place] : places) {
        fs::create_directories(folder / place);
        fs::permissions(folder / place, fs::perms::owner_all);
        setenv(variable, (folder / place).c_str(), 1);
    }
    unsetenv("DBUS_SESSION_BUS_ADDRESS");
}

// Runs one measurement in a process of its own; empty when it failed, which that process has
// explained.
std::optional<Figures> runApart(const Measurement& measurement, const Settings& settings) {
    std::string number = std::to_string(settings.seconds);
    std::string program = ownPath().string();
    const std::string words[] = {program, "--measure",    measurement.name, measurement.variant,
                                 number,  settings.folder};
    std::vector<char*> arguments;
    for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);

    int ends[2];
    check(pipe(ends), "pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, ends[0]);
    posix_spawn_file_actions_addclose(&actions, ends[1]);
    pid_t child = -1;
    const int error =
        posix_spawn(&child, program.c_str(), &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    if (error != 0) {
        errno = error;
        fail("posix_spawn");
    }
    std::string text;
    char chunk[4096];
    for (ssize_t size = 0; (size = read(ends[0], chunk, sizeof chunk)) > 0;)
        text.append(chunk, static_cast<std::size_t>(size));
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;

    Figures figures;
    std::istringstream lines(text);
    std::string metric;
    for (double value = 0; lines >> metric >> value;) figures.emplace_back(metric, value);
    if (figures.empty()) return std::nullopt;
    return figures;
}

// What --measure does: prints the figures of one measurement.
int measureHere(const std::string& name, const std::string& variant, const Settings& settings) {
    for (const Measurement& measurement : allMeasurements()) {
        if (measurement.name != name || measurement.variant != variant) continue;
        for (const auto& [metric, value] : measurement.run(settings))
            std::printf("%s %.9g\n", metric.c_str(), value);
        return 0;
    }
    return 2;
}

int drive(const Options& options) {
    std::string pattern = (ownPath().parent_path() / "benchmark-XXXXXX").string();
    if (!mkdtemp(pattern.data())) fail("mkdtemp " + pattern);
    const fs::path scratch = pattern;

    std::vector<Measurement> measurements = allMeasurements();
    if (!options.only.empty()) {
        std::erase_if(measurements,
                      [&](const Measurement& one) { return one.part != options.only; });
    }
    Results results;
    int failures = 0;
    for (int repeat = 0; repeat < options.repeats; ++repeat) {
        if (repeat > 0)
            std::rotate(measurements.begin(), measurements.begin() + 1, measurements.end());
        for (const Measurement& measurement : measurements) {
            std::fprintf(stderr, "\r\033[K%d of %d: %s, %s", repeat + 1, options.repeats,
                         measurement.name.c_str(), measurement.variant.c_str());
            const fs::path home = scratch / "home";
            enterHome(home);
            const auto figures = runApart(measurement, {options.quick ? 0.05 : 0.5, home.string()});
            if (figures) {
                results.add(measurement.name, measurement.variant, *figures);
            } else {
                ++failures;
                std::fprintf(stderr, "\n%s, %s: not measured\n", measurement.name.c_str(),
                             measurement.variant.c_str());
            }
            fs::remove_all(home);
        }
    }
    std::fprintf(stderr, "\r\033[K");
    fs::remove_all(scratch);

    std::string text;
    for (const char* part : kParts) {
        if (options.only.empty() || options.only == part) text += goalsTable(results, part);
    }
    text += results.tables();
    std::cout << text;
    if (!options.output.empty() && !(std::ofstream(options.output) << text))
        fail("write " + options.output);
    return failures == 0 ? 0 : 1;
}

}  // namespace
}  // namespace utilia::bench

int main(int argc, char** argv) try {
    using namespace utilia::bench;
    if (argc == 6 && std::strcmp(argv[1], "--measure") == 0) {
        goFirst();
        return measureHere(argv[2], argv[3], {std::atof(argv[4]), argv[5]});
    }
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        std::cout << kUsage;
        return 0;
    }
    const auto options = parse(argc, argv);
    if (!options) {
        std::cerr << kUsage;
        return 2;
    }
    return drive(*options);
} catch (const std::exception& exception) {
    std::fprintf(stderr, "benchmark: %s\n", exception.what());
    return 1;
}
