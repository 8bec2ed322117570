#include "Tests/Process/StartUp/StartUpFixture.h"

#include <algorithm>
#include <fstream>
#include <sstream>

#include "Common/Platform/UserDefaults.h"
#include "Tests/Support/Places.h"

namespace utilia::test {
namespace {

namespace fs = std::filesystem;

// A link where the file system has them; the running program finds itself under this name.
void place(const fs::path& file, const fs::path& where) {
    fs::create_directories(where.parent_path());
    fs::remove(where);
    std::error_code failed;
    fs::create_hard_link(file, where, failed);
    if (failed) fs::copy_file(file, where);
}

std::string contents(const fs::path& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

}  // namespace

StartUpFixture::StartUpFixture() {
    const fs::path library = fs::canonical(test::places::kLibrary);
    place(library, prefix() / "lib" / UTILIA_LIBRARY_SONAME);
    fs::copy(library.parent_path() / "UtiliaCommon.framework", framework(),
             fs::copy_options::recursive);
    // A journal of the machine would take the lines.
    if (fs::exists("/run/systemd/journal")) mounts_.limitSpace("/run/systemd/journal", 1 << 16);
}

TestBundle StartUpFixture::tool(const std::string& name, const std::string& identifier,
                                Dictionary info) {
    fs::remove_all(prefix() / "Applications" / (name + ".app"));
    TestBundle bundle(home_, {.name = name,
                              .bundleIdentifier = identifier,
                              .folder = prefix() / "Applications",
                              .info = std::move(info)});
    place(test::places::kStartUpTool, bundle.program());
    return bundle;
}

Dictionary StartUpFixture::needingTheAgent() {
    return {{"ToolCapabilities", Dictionary{{"NeedAgentForWork", true}}}};
}

ChildProcess StartUpFixture::start(const TestBundle& tool,
                                   const std::vector<std::string>& arguments,
                                   ChildProcessOptions options) {
    options.mounts = &mounts_;
    options.ownSession = true;
    if (options.standardError.empty()) options.standardError = home_.path() / "log";
    options.environment.insert(environment_.begin(), environment_.end());
    return ChildProcess::program(tool.program(), arguments, options);
}

std::vector<std::string> StartUpFixture::log() const {
    std::istringstream text(contents(home_.path() / "log"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);) lines.push_back(line);
    return lines;
}

std::size_t StartUpFixture::countInLog(const std::string& text) const {
    const auto lines = log();
    return static_cast<std::size_t>(
        std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
            return line.find(text) != std::string::npos;
        }));
}

StartUpFixture::Course StartUpFixture::courseOf(ChildProcess& process) {
    Course course;
    while (auto line = process.waitForLine()) course.lines.push_back(*std::move(line));
    course.status = process.waitForExit();
    return course;
}

StartUpFixture::Course StartUpFixture::courseOf(const TestBundle& tool,
                                                const std::vector<std::string>& arguments,
                                                const ChildProcessOptions& options) {
    ChildProcess process = start(tool, arguments, options);
    return courseOf(process);
}

void StartUpFixture::allowOnly(const std::vector<std::string>& names) {
    std::string list;
    for (const std::string& name : names) list += (list.empty() ? "\"" : ", \"") + name + "\"";
    mounts_.writeSettings("{\"WhiteToolsList\": [" + list + "]}\n");
}

void StartUpFixture::answerAlerts(const std::string& answer) {
    const fs::path folder = framework() / "Resources/UtiliaCommon.bundle/Contents/Linux";
    place(test::places::kAnsweringAlert, folder / "utilia-alert");
    std::ofstream(folder / "answer") << answer << '\n';
    environment_["DISPLAY"] = ":no-display-is-opened";
}

std::string StartUpFixture::questions() const {
    return contents(framework() / "Resources/UtiliaCommon.bundle/Contents/Linux/question");
}

bool StartUpFixture::wasEverListed(const std::string& identifier) const {
    std::string key = identifier;
    std::transform(key.begin(), key.end(), key.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return fs::exists(home_.runtime() / "com.korvane.utilia/running" / key);
}

void StartUpFixture::markAsMigrated() const {
    platform::UserDefaults::initWithDomain(kAgent)->setObject(true, "ToolLauncherMigrated");
}

}  // namespace utilia::test
