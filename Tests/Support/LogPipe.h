#pragma once

#include <array>
#include <stdexcept>
#include <string>

#include <fcntl.h>
#include <unistd.h>

#include "Common/Platform/UniqueFd.h"

namespace utilia::test {

// A pipe in place of stderr, and whoever reads it.
struct LogPipe {
    LogPipe() {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
        reader.reset(ends[0]);
        writer.reset(ends[1]);
        fcntl(reader.get(), F_SETFL, O_NONBLOCK);
    }
    // What has been written and not been read, without waiting for more.
    std::string readAll() const {
        std::string text;
        std::array<char, 65536> block;
        for (ssize_t count = 0; (count = read(reader.get(), block.data(), block.size())) > 0;) {
            text.append(block.data(), static_cast<std::size_t>(count));
        }
        return text;
    }
    platform::UniqueFd reader;
    platform::UniqueFd writer;
};

}  // namespace utilia::test
