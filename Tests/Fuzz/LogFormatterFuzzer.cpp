#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Common/Foundation/Unicode.h"
#include "Common/Logging/LogEscape.h"
#include "Common/Logging/LogFormatter.h"

using namespace utilia;

namespace {

// Takes the input apart: a few typed arguments first, what is left is the format.
class Input final {
public:
    Input(const std::uint8_t* data, std::size_t size)
        : rest_(reinterpret_cast<const char*>(data), size) {}

    std::string_view take(std::size_t count) {
        const std::string_view taken = rest_.substr(0, count);
        rest_.remove_prefix(taken.size());
        return taken;
    }
    template <class Number>
    Number number() {
        Number value{};
        const std::string_view bytes = take(sizeof value);
        std::memcpy(&value, bytes.data(), bytes.size());
        return value;
    }
    LogArgument argument() {
        switch (number<std::uint8_t>() % 6) {
        case 0:
            return LogArgument(number<std::int64_t>());
        case 1:
            return LogArgument(number<std::uint64_t>());
        case 2:
            return LogArgument(number<double>());
        case 3:
            return LogArgument(nullptr);
        case 4:
            return LogArgument(number<std::uint8_t>() % 2 == 0);
        default:
            return LogArgument(take(number<std::uint8_t>()));
        }
    }
    std::string_view rest() const { return rest_; }

private:
    std::string_view rest_;
};

void require(bool holds) {
    if (!holds) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    std::vector<LogArgument> arguments;
    for (int count = input.number<std::uint8_t>() % 8; count > 0; --count)
        arguments.push_back(input.argument());

    const std::string line = formatLogLine(input.rest(), arguments);
    // The same again; and no argument is left out without a word when there is no placeholder.
    require(line == formatLogLine(input.rest(), arguments));
    if (input.rest().find('%') == std::string_view::npos) {
        require(std::string_view(line).starts_with(input.rest()));
        std::size_t markers = 0;
        const std::string_view extra = std::string_view(line).substr(input.rest().size());
        for (std::size_t at = 0; (at = extra.find(" <extra: ", at)) != std::string_view::npos; ++at)
            ++markers;
        require(markers >= arguments.size());
    }

    // Whatever the line holds, escaped it is text on one line, and escaping it again changes
    // nothing.
    const std::string escaped = escapedLogLine(line);
    require(isValidUtf8(escaped));
    for (const char byte : escaped)
        require(byte == '\t' || static_cast<unsigned char>(byte) >= 0x20);
    require(escapedLogLine(escaped) == escaped);
    return 0;
}
