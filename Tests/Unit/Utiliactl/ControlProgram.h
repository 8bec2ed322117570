#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/TemporaryHome.h"

namespace utilia::test {

struct ControlAnswer {
    int status = -1;
    std::string out;
    std::string err;
};

// Runs the control program for a user of the test's own.
class ControlProgramTest : public testing::Test {
protected:
    ControlAnswer run(const std::vector<std::string>& arguments,
                      const std::map<std::string, std::string>& environment = {}) const {
        ChildProcessOptions options;
        options.environment = environment;
        options.standardOutput = home_.path() / "out";
        options.standardError = home_.path() / "err";
        auto child = ChildProcess::program(test::places::kControlProgram, arguments, options);
        const int status = child.waitForExit().value_or(-1);
        ControlAnswer answer{status, contentOf(options.standardOutput),
                             contentOf(options.standardError)};
        std::filesystem::remove(options.standardOutput);
        std::filesystem::remove(options.standardError);
        return answer;
    }
    // What a successful call writes.
    std::string answer(const std::vector<std::string>& arguments,
                       const std::map<std::string, std::string>& environment = {}) const {
        const ControlAnswer given = run(arguments, environment);
        EXPECT_EQ(given.status, 0);
        EXPECT_EQ(given.err, "");
        return given.out;
    }
    // Why a call fails with this status, without an answer.
    std::string refusal(int status, const std::vector<std::string>& arguments) const {
        const ControlAnswer given = run(arguments);
        EXPECT_EQ(given.status, status);
        EXPECT_EQ(given.out, "");
        return given.err;
    }
    static std::string contentOf(const std::filesystem::path& path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    TemporaryHome home_;
};

}  // namespace utilia::test
