#include "Tests/Support/ScreenReader.h"

#include <algorithm>
#include <cctype>
#include <csignal>
#include <ostream>
#include <set>
#include <sstream>
#include <stdexcept>

#include "Tests/Support/Places.h"
#include "Tests/Support/VirtualDisplay.h"

namespace utilia::test {
namespace {

constexpr const char* kLauncher = "/usr/libexec/at-spi-bus-launcher";
constexpr const char* kPython = "/usr/bin/python3";  // the one that has the bindings

bool isInList(const std::string& list, const std::string& word) {
    return ("," + list + ",").find("," + word + ",") != std::string::npos;
}

ScreenReader::Element elementOf(const std::string& line) {
    std::vector<std::string> fields;
    std::istringstream text(line + "\t");  // an empty field at the end counts
    for (std::string field; std::getline(text, field, '\t');) fields.push_back(field);
    if (fields.size() < 7) throw std::runtime_error("screen-reader printed: " + line);
    return {std::stoi(fields[0]), fields[1], fields[2], fields[3], fields[4], fields[5], fields[6]};
}

}  // namespace

bool ScreenReader::Element::is(const std::string& state) const { return isInList(states, state); }

bool ScreenReader::Element::isForUsers() const {
    return is("showing") && (is("focusable") || isInList(actions, "Press"));
}

std::ostream& operator<<(std::ostream& stream, const ScreenReader::Element& element) {
    return stream << element.depth << " | " << element.role << " | " << element.name << " | "
                  << element.description << " | " << element.states << " | " << element.actions
                  << " | " << element.keys;
}

std::vector<std::string> flawsOf(const std::vector<ScreenReader::Element>& window) {
    static const std::set<std::string> kKinds{
        "check box", "combo box",     "label",       "list",        "list item",
        "page tab",  "page tab list", "push button", "spin button", "text"};
    static const std::set<std::string> kPressed{"check box", "page tab", "push button"};
    std::vector<std::string> flaws;
    std::map<std::string, std::string> letters;
    for (const auto& element : window) {
        if (!element.isForUsers()) continue;
        std::ostringstream text;
        text << element;
        if (element.name.empty()) flaws.push_back("no name: " + text.str());
        if (!kKinds.contains(element.role)) flaws.push_back("of no known kind: " + text.str());
        if (!kPressed.contains(element.role) || element.is("unavailable")) continue;
        // The same key stands there several times, in upper and lower case.
        std::string letter = element.keys.substr(0, element.keys.find(','));
        std::transform(letter.begin(), letter.end(), letter.begin(),
                       [](unsigned char one) { return static_cast<char>(std::toupper(one)); });
        if (letter.empty()) flaws.push_back("no letter: " + text.str());
        const auto [other, isNew] = letters.emplace(letter, element.name);
        if (!isNew) flaws.push_back(letter + " is " + other->second + " and " + element.name);
    }
    return flaws;
}

ScreenReader::ScreenReader(const PrivateBus& bus, const std::filesystem::path& folder)
    : address_(bus.address()) {
    ChildProcessOptions options;
    // The descriptions of its settings are the system's.
    options.environment = {{"DBUS_SESSION_BUS_ADDRESS", address_}, {"XDG_DATA_DIRS", "\x01"}};
    options.standardOutput = folder / "accessibility.log";
    options.standardError = folder / "accessibility.log";
    launcher_ = ChildProcess::program(kLauncher, {"--launch-immediately"}, options);
    const auto isThere =
        runProgram({"gdbus", "wait", "--session", "--timeout", "50", "org.a11y.Bus"},
                   {{"DBUS_SESSION_BUS_ADDRESS", address_}});
    if (isThere.status != 0) throw std::runtime_error("the bus of accessible programs is missing");
}

ScreenReader::~ScreenReader() {
    // It takes its bus along, unless it is killed.
    launcher_.signal(SIGTERM);
    launcher_.waitForExit();
}

std::map<std::string, std::string> ScreenReader::environment() const {
    return {{"DBUS_SESSION_BUS_ADDRESS", address_},
            {"QT_ACCESSIBILITY", "1"},
            {"QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1"}};
}

std::vector<ScreenReader::Element>
ScreenReader::read(const std::string& title, std::map<std::string, std::string> environment) const {
    environment.merge(this->environment());
    const auto heard = runProgram({kPython, test::places::kScreenReader, title}, environment);
    if (heard.status != 0) throw std::runtime_error("nothing is heard of the window " + title);
    std::vector<Element> elements;
    std::istringstream lines(heard.text);
    for (std::string line; std::getline(lines, line);) elements.push_back(elementOf(line));
    return elements;
}

bool ScreenReader::press(const std::string& title, const std::string& button,
                         std::map<std::string, std::string> environment) const {
    environment.merge(this->environment());
    return runProgram({kPython, test::places::kScreenReader, title, "press", button}, environment)
               .status == 0;
}

}  // namespace utilia::test
