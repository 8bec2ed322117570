#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/PrivateBus.h"

namespace utilia::test {

// Somebody who uses a computer by ear: the desktop's bus of accessible programs, beside a session bus of the test's.
// Ends with this object.
class ScreenReader final {
public:
    // One element of a window, as it is spoken. Roles, states and actions have the names that AT-SPI gives them, and
    // "unavailable" is the state of what cannot be used.
    struct Element {
        int depth = 0;
        std::string role;
        std::string name;
        std::string description;
        std::string states;   // separated by commas, in the order of the alphabet
        std::string actions;  // separated by commas
        std::string keys;     // by which it is reached: "Alt+S"

        bool is(const std::string& state) const;
        // Whether it is seen and a user can do something with it.
        bool isForUsers() const;
    };

    // Logs in `folder`.
    ScreenReader(const PrivateBus& bus, const std::filesystem::path& folder);
    ~ScreenReader();

    // For the programs that shall speak.
    std::map<std::string, std::string> environment() const;

    // The window of this title, when it is the active one, before everything in it; on the display of `environment`.
    // Throws std::runtime_error when there is none.
    std::vector<Element> read(const std::string& title,
                              std::map<std::string, std::string> environment) const;
    // Whether there was such a button and it could be pressed.
    bool press(const std::string& title, const std::string& button,
               std::map<std::string, std::string> environment) const;

private:
    std::string address_;
    ChildProcess launcher_;
};

// What is amiss in a window for who hears it and for who has a keyboard only: controls without a name or of no known kind,
// buttons without a letter that presses them, letters that press two. One sentence each.
std::vector<std::string> flawsOf(const std::vector<ScreenReader::Element>& window);

// For messages.
std::ostream& operator<<(std::ostream& stream, const ScreenReader::Element& element);

}  // namespace utilia::test
