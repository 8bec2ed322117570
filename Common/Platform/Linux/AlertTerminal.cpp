#include "Common/Platform/Linux/AlertTerminal.h"

#include <cerrno>
#include <charconv>
#include <csignal>
#include <optional>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

#include "Common/Platform/UniqueFd.h"

// The terminal that the session belongs to is asked, and not the standard streams: those may well
// be redirected while somebody sits in front of the terminal, and it is there without a person when
// a tool is started by a service. A process in the background is not asked: the kernel would stop
// it at the first read.

namespace utilia::platform {
namespace {

constexpr const char* kTerminal = "/dev/tty";
constexpr std::size_t kLineLimit = 256;  // no number is longer

Result<UniqueFd> openTerminal() {
    int descriptor;
    do {
        descriptor = open(kTerminal, O_RDWR | O_NOCTTY | O_CLOEXEC);
    } while (descriptor < 0 && errno == EINTR);
    if (descriptor < 0) {
        if (errno != ENXIO && errno != ENOENT) return Error::posix(errno, "open", kTerminal);
        return Error::utilia(UtiliaErrorCode::NotFound, "there is no terminal");
    }
    UniqueFd terminal(descriptor);
    if (tcgetpgrp(descriptor) != getpgrp()) {
        return Error::utilia(UtiliaErrorCode::NotFound,
                             "this process is in the background of its terminal");
    }
    return terminal;
}

Result<void> show(int terminal, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(terminal, text.data(), text.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) return Error::posix(errno, "write", kTerminal);
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return {};
}

// One line without its end; empty at the end of input. Of a line that is too long the rest is left
// out.
Result<std::optional<std::string>> readLine(int terminal) {
    std::string line;
    for (;;) {
        char next = 0;
        const ssize_t count = read(terminal, &next, 1);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return Error::posix(errno, "read", kTerminal);
        if (count == 0) return std::optional<std::string>();
        // A terminal that does not translate sends what the key does.
        if (next == '\n' || next == '\r') return std::optional<std::string>(std::move(line));
        if (line.size() < kLineLimit) line += next;
    }
}

std::optional<std::size_t> choiceOf(std::string_view line, std::size_t buttons) {
    while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
    while (!line.empty() && (line.back() == ' ' || line.back() == '\t')) line.remove_suffix(1);
    if (line.empty()) return 0;
    std::size_t number = 0;
    const auto read = std::from_chars(line.data(), line.data() + line.size(), number);
    if (read.ec != std::errc() || read.ptr != line.data() + line.size()) return std::nullopt;
    if (number < 1 || number > buttons) return std::nullopt;
    return number - 1;
}

// Numbers and signs alone: it must be understood in every language.
std::string prompt(std::size_t buttons) {
    return (buttons == 1 ? "1" : "1-" + std::to_string(buttons)) + " [1]: ";
}

}  // namespace

Result<std::size_t> askOnTerminal(const AlertQuestion& question) {
    const auto terminal = openTerminal();
    if (!terminal) return terminal.error();

    std::string text = "\n" + question.title + "\n" + question.message + "\n";
    std::size_t number = 0;
    for (const std::string& button : question.buttons) {
        text += "  " + std::to_string(++number) + ") " + button + "\n";
    }
    for (;;) {
        text += prompt(question.buttons.size());
        if (const auto shown = show(terminal->get(), text); !shown) return shown.error();
        const auto line = readLine(terminal->get());
        if (!line) return line.error();
        if (!*line) {
            (void)show(terminal->get(), "\n");
            return question.buttons.size() - 1;
        }
        if (const auto choice = choiceOf(**line, question.buttons.size())) return *choice;
        text.clear();
    }
}

}  // namespace utilia::platform
