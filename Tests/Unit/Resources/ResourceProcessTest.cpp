// Resources that run while they are replaced.

#include <cerrno>
#include <cstring>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Unit/Resources/ResourceFixture.h"

namespace utilia {
namespace {

namespace fs = std::filesystem;
using test::ChildProcess;
using testing::ElementsAre;

constexpr const char* kShell = "/bin/sh";

// Ends with 42 when it is told to, and is the same whatever is at its path by then.
const std::vector<std::string> kWaitThenAnswer{"-c", "echo ready >&3; read line <&3; exit 42"};

// Starts a shell that ends at once; answers 0 when it did, or why it could not.
int start(const std::string& shell) {
    std::string program = shell, option = "-c", text = "exit 42";
    char* const arguments[] = {program.data(), option.data(), text.data(), nullptr};
    pid_t child = -1;
    if (const int error = posix_spawn(&child, shell.c_str(), nullptr, nullptr, arguments, environ);
        error != 0) {
        return error;
    }
    int status = 0;
    if (waitpid(child, &status, 0) != child) return errno;
    return WIFEXITED(status) && WEXITSTATUS(status) == 42 ? 0 : ECHILD;
}

class ResourceCopy : public test::ResourceFixture {};

class ResourceExecution : public test::ResourceFixture, public testing::WithParamInterface<bool> {
protected:
    fs::path given() const {
        return (GetParam() ? elsewhere_.path() : home_.path()) / "given program";
    }
    void installProgram(std::uint64_t number) const {
        fs::copy_file(fs::canonical(kShell), given(), fs::copy_options::overwrite_existing);
        ResourceManager::addResourceFile(given().string(), kName, IndexPath{9, 0, 0, number}, 1,
                                         kBundleId);
    }

    const test::TemporaryFolder elsewhere_;
};

INSTANTIATE_TEST_SUITE_P(From, ResourceExecution, testing::Bool(), [](const auto& from) {
    return from.param ? "AnotherFileSystem" : "TheSameFileSystem";
});

TEST_P(ResourceExecution, GoesOnWithTheOldCopyWhileANewOneIsInstalled) {
    installProgram(1);
    auto running = ChildProcess::program(chosenPath(), kWaitThenAnswer);
    ASSERT_EQ(running.waitForLine(), "ready");
    test::writeFile(given(), "#!/bin/sh\nexit 7\n");
    ResourceManager::addResourceFile(given().string(), kName, IndexPath{9, 0, 0, 2}, 1, kBundleId);
    EXPECT_THAT(log_.lines(), ElementsAre()) << "a running file is no obstacle";
    EXPECT_EQ(ChildProcess::program(chosenPath(), {}).waitForExit(), 7);
    EXPECT_TRUE(running.isRunning());
    running.say("go");
    EXPECT_EQ(running.waitForExit(), 42);
}

// Runs a program whenever a line is logged.
class StartingSink final : public LogSink {
public:
    explicit StartingSink(std::string program) : program_(std::move(program)) {}
    bool write(std::string_view) noexcept override {
        error_ = start(program_);
        return true;
    }
    int error() const { return error_; }

private:
    const std::string program_;
    int error_ = -1;
};

// That the given file cannot be removed is told while the installation still goes on: what it has
// put in place can be run by then.
TEST_F(ResourceCopy, CanBeRunAsSoonAsItIsInPlace) {
    const test::TemporaryFolder elsewhere;
    const auto given = elsewhere.path() / "given";
    fs::copy_file(fs::canonical(kShell), given);
    const auto sink = std::make_shared<StartingSink>(installed().string());
    setLogSink(sink);
    const test::ArmedFault fault(
        {.call = kUtiliaFaultUnlink, .kind = kUtiliaFaultError, .error = EACCES});
    ResourceManager::addResourceFile(given.string(), kName, IndexPath{9, 0, 0, 1}, 1, kBundleId);
    setLogSink(nullptr);
    ASSERT_EQ(fault.hits(), 1u);
    EXPECT_EQ(sink->error(), 0) << std::strerror(sink->error());
}

// Arguments: file to give.
UTILIA_CHILD_ROLE(installProgramsForEver) {
    for (std::uint64_t number = 1;; ++number) {
        fs::copy_file(fs::canonical(kShell), self.arguments.at(0),
                      fs::copy_options::overwrite_existing);
        ResourceManager::addResourceFile(self.arguments.at(0), "converter",
                                         IndexPath{9, 0, 0, number}, 1,
                                         "com.korvane.utilia.SampleTool");
        if (number == 1) self.say("installing");
    }
}

TEST_P(ResourceExecution, CanBeStartedAtAnyMomentOfAnInstallation) {
    auto installer = ChildProcess::role("installProgramsForEver", {given().string()});
    ASSERT_EQ(installer.waitForLine(), "installing");
    const std::string path = chosenPath();
    ASSERT_EQ(path, installed().string());
    ino_t last = 0;
    int replaced = 0;
    for (int i = 0; i < 300 || (replaced < 20 && i < 20'000); ++i) {
        const int error = start(path);
        ASSERT_EQ(error, 0) << "start number " << i << ": " << std::strerror(error);
        struct stat found {};
        ASSERT_EQ(stat(path.c_str(), &found), 0);
        replaced += found.st_ino != last;
        last = found.st_ino;
    }
    EXPECT_GE(replaced, 20);
}

}  // namespace
}  // namespace utilia
