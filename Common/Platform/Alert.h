#pragma once

#include <string>
#include <vector>

#include "Common/Foundation/Export.h"

namespace utilia::platform {

// Contract: never renumber. Values of the original platform.
enum class AlertStyle : int {
    Warning = 0,
    Informational = 1,
    Critical = 2,
};

// What runModal() answers for the first button, the second, and so on.
inline constexpr int NSAlertFirstButtonReturn = 1000;
inline constexpr int NSAlertSecondButtonReturn = 1001;
inline constexpr int NSAlertThirdButtonReturn = 1002;

// A question to the user that waits for its answer. Can be asked before main: nothing of the host is used, neither a
// toolkit nor a loop.
//
// Whoever asks puts the answer that does no harm last. It is taken when the user closes the window or presses Escape,
// and whenever nobody can be asked.
//
// Threads: an instance belongs to one thread; any thread may ask.
class UTILIA_EXPORT Alert {
public:
    Alert() = default;

    AlertStyle alertStyle() const { return style_; }
    void setAlertStyle(AlertStyle style) { style_ = style; }

    // Plain text; line breaks are kept. Shown up to 16 KiB.
    const std::string& messageText() const { return messageText_; }
    void setMessageText(std::string text) { messageText_ = std::move(text); }

    // From the first one, which Return chooses, to the last one, which Escape chooses. An alert without buttons is
    // shown with one, "OK" in the user's language. Titles are shown up to 512 bytes.
    void addButtonWithTitle(std::string title) { buttons_.push_back(std::move(title)); }
    const std::vector<std::string>& buttons() const { return buttons_; }

    // Asks, and waits for as long as the user thinks: in a window where there is a display, as text on the terminal
    // that this process is started from where there is none. The calling thread serves nothing meanwhile. The window
    // is a program of its own (utilia-alert), which ends when this process does.
    //
    // When it ends without an answer, cannot be started, or there is neither display nor terminal, the answer is that
    // of the last button, and one log line says why.
    int runModal() const noexcept;

private:
    AlertStyle style_ = AlertStyle::Warning;
    std::string messageText_;
    std::vector<std::string> buttons_;
};

}  // namespace utilia::platform
