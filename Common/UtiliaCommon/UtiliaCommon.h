#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Common/Foundation/Export.h"

namespace utilia {

class ToolDataClientProvider;

// The argument with which the agent is asked to show its user interface. Contract: never rename.
inline constexpr std::string_view kShowUIArgument = "--show-ui";

// The framework's front door. When the library is loaded, before the application's own main, it
// decides whether the process is the agent or a tool, and whether a tool may run
// (Documentation/StartUp.md tells it in order). An application that gets to its main has passed.
//
// Threads: any, except where it is said.
class UTILIA_EXPORT UtiliaCommon final {
public:
    // The one that was made when the library was loaded. Null only in programs that carry the
    // framework's objects instead of loading the library.
    static const UtiliaCommon* utiliaCommon();

    // The tool's connection with the agent: made with the first call, which registers the tool's
    // port, so only tools call it. Its port is served by the loop of the thread that calls first,
    // which should be the main thread. Lives until the process ends.
    static ToolDataClientProvider& toolDataClientProvider();

    // The checks of a tool's start. Ends the process with status 0 when one of them refuses the
    // tool. A tool that is shut off by its arguments passes without checks, and ends with the first
    // turn of the main loop.
    static std::unique_ptr<UtiliaCommon> init();
    // The agent's form: no check.
    static std::unique_ptr<UtiliaCommon> initForAgent();

    // Launches the agent, or reopens it when it runs, with kShowUIArgument. An agent that is not
    // installed is not launched, and nobody is told.
    void showAgentUI() const;

    // Tells the user that the administrator does not allow this tool, waits for the answer, and
    // ends the process with status 0.
    [[noreturn]] void showRestrictionAlertAndExit() const;

    // A helper program inside the framework's bundle; empty when it is missing.
    std::optional<std::string> pathForAuxiliaryExecutable(std::string_view name) const;

    UtiliaCommon(const UtiliaCommon&) = delete;
    UtiliaCommon& operator=(const UtiliaCommon&) = delete;

private:
    friend void initializeFramework() noexcept;
    UtiliaCommon() = default;
};

}  // namespace utilia
