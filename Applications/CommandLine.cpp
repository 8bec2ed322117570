#include "Applications/CommandLine.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "Common/Platform/Bundle.h"

namespace utilia {
namespace {

constexpr int kWrongUsage = 2;

bool isOneOf(const std::vector<std::string_view>& known, std::string_view word) {
    return std::find(known.begin(), known.end(), word) != known.end();
}

CommandLine answer(const std::string& text) {
    const bool isWritten = std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0;
    return {isWritten ? EXIT_SUCCESS : EXIT_FAILURE};
}

std::string versionText(std::string_view program) {
    const platform::Bundle* const bundle = platform::Bundle::mainBundle();
    const auto version =
        bundle ? bundle->infoDictionary().string("CFBundleShortVersionString") : std::nullopt;
    return std::string(program) + " " + version.value_or("of no version") + "\n";
}

CommandLine refuse(std::string_view program, const std::string& reason) {
    const std::string name(program);
    std::fprintf(stderr, "%s: %s\nRun \"%s --help\" for more.\n", name.c_str(), reason.c_str(),
                 name.c_str());
    return {kWrongUsage};
}

}  // namespace

CommandLine CommandLine::read(const CommandLineUsage& usage, int count, char** words) {
    const std::vector<std::string> arguments(words + std::min(count, 1), words + count);
    CommandLine line;
    bool areOperands = false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& word = arguments[i];
        if (areOperands || word.size() < 2 || word[0] != '-') {
            line.operands.push_back(word);
        } else if (word == "--") {
            areOperands = true;
        } else if (word == "--help") {
            return answer(std::string(usage.help));
        } else if (word == "--version") {
            return answer(versionText(usage.program));
        } else if (isOneOf(usage.toolkitOptions, word)) {
            if (++i == arguments.size())
                return refuse(usage.program, "\"" + word + "\" needs a value");
        } else if (isOneOf(usage.options, word)) {
            line.options.push_back(word);
        } else {
            return refuse(usage.program, "\"" + word + "\" is no option");
        }
    }
    if (line.operands.size() > usage.maximumOperands) {
        return refuse(usage.program,
                      "\"" + line.operands[usage.maximumOperands] + "\" is one word too many");
    }
    return line;
}

bool CommandLine::has(std::string_view option) const {
    return std::find(options.begin(), options.end(), option) != options.end();
}

}  // namespace utilia
