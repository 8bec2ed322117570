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

ExitStatus runCommand(Command& command) {
    std::ostringstream answer;
    if (const auto done = command.run(answer); !done) return failed(done.error());
    const std::string text = answer.str();
    errno = 0;
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() ||
        std::fflush(stdout) != 0) {
        return failed(Error::posix(errno, "write", "standard output"));
    }
    return command.hasFoundErrors() ? ExitStatus::Failed : ExitStatus::Done;
}

ExitStatus runProgram(int argc, char** argv) {
    ControlProgram program;
    try {
        program.options().parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // Also how help and version are answered.
        return program.options().exit(error) == 0 ? ExitStatus::Done : ExitStatus::WrongUsage;
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
