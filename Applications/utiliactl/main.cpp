#include <cerrno>
#include <cstdio>
#include <iostream>
#include <sstream>

#include "Applications/utiliactl/ControlProgram.h"

namespace {

using namespace utilia;
using namespace utilia::control;

// Contract: scripts depend on these.
enum class ExitStatus { Done = 0, Failed = 1, WrongUsage = 2 };

ExitStatus failed(const Error& error) {
    std::cerr << "utiliactl: " << error.description << std::endl;
    return ExitStatus::Failed;
}

// Whether the answer has arrived; says so when not.
bool write(const std::string& text) {
    errno = 0;
    const bool isWritten =
        std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
    if (!isWritten) failed(Error::posix(errno, "write", "standard output"));
    return isWritten;
}

ExitStatus runCommand(Command& command) {
    std::ostringstream answer;
    if (const auto done = command.run(answer); !done) return failed(done.error());
    if (!write(answer.str())) return ExitStatus::Failed;
    return command.hasFoundErrors() ? ExitStatus::Failed : ExitStatus::Done;
}

ExitStatus runProgram(int argc, char** argv) {
    ControlProgram program;
    program.addHintsToHelp();
    try {
        program.options().parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::ostringstream answer;
        // Also how help and version are answered.
        if (program.options().exit(error, answer, std::cerr) != 0) return ExitStatus::WrongUsage;
        return write(answer.str()) ? ExitStatus::Done : ExitStatus::Failed;
    }
    Command* const command = program.chosenCommand();
    return command ? runCommand(*command) : ExitStatus::WrongUsage;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return static_cast<int>(runProgram(argc, argv));
    } catch (const std::exception& exception) {
        return static_cast<int>(failed({std::string(kUtiliaErrorDomain), 0, exception.what()}));
    }
}
