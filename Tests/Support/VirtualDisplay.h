#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ReportPipe.h"

namespace utilia::test {

// The output and the exit status of a program that is run to its end.
struct ProgramOutput {
    int status = -1;
    std::string text;
    std::string errors;  // what it wrote to stderr
};
// Any program of $PATH; it is killed, and std::runtime_error thrown, when it takes longer than a minute.
ProgramOutput runProgram(const std::vector<std::string>& command,
                         const std::map<std::string, std::string>& environment = {});

// A display of its own with a window manager, and somebody at keyboard and mouse. Nobody else can
// open it. Ends with this object.
class VirtualDisplay final {
public:
    explicit VirtualDisplay(const std::filesystem::path& folder);

    // DISPLAY and XAUTHORITY, for the programs that shall show something.
    const std::map<std::string, std::string>& environment() const { return environment_; }

    // Waits until a window of exactly this title shows and has the keyboard; answers its number.
    std::string waitForWindow(const std::string& title) const;
    // The window with the keyboard; empty when none has it.
    std::string focusedWindow() const;
    // Whether one shows now.
    bool hasWindow(const std::string& title) const;
    int processOfWindow(const std::string& window) const;
    struct Size {
        int width = 0;
        int height = 0;
    };
    Size sizeOfWindow(const std::string& window) const;
    // What the user sees at a place of a window: "#RRGGBB".
    std::string colorInWindow(const std::string& window, int x, int y) const;
    // What xprop says of a property.
    std::string propertyOfWindow(const std::string& window, const std::string& name) const;

    // Names of keys as xdotool has them: "Return", "alt+F4". They go to the window with the keyboard.
    void press(const std::vector<std::string>& keys) const;
    void click(const std::string& window, int x, int y) const;
    // At a place of the screen, with a button of the mouse: 1 is the left one, 3 the right one.
    void clickOnScreen(int x, int y, int button) const;
    // A part of the screen, row by row: red, green and blue of each pixel.
    std::string pixels(int left, int top, int width, int height) const;
    // The display goes away under its programs.
    void end();
    // The whole screen, as PNG.
    void photograph(const std::filesystem::path& picture) const;

private:
    ProgramOutput run(const std::vector<std::string>& command) const;

    std::map<std::string, std::string> environment_;
    ChildProcess server_;
    ChildProcess manager_;
};

}  // namespace utilia::test
