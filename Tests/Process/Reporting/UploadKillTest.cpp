#include <csignal>

#include <sys/stat.h>

#include "Tests/Process/Reporting/UploadFixture.h"

// The shell of an upload dies of SIGKILL at each of its steps.

namespace utilia {
namespace {

using test::kEndpointPath;
using test::NginxServer;
using test::UploadTest;
using testing::IsEmpty;

namespace fs = std::filesystem;

// Stands before a program: does what it does, and kills the shell that runs the command, or itself
// where the shell has put it in its own place.
std::string killer(const std::string& program, const std::string& step) {
    return "#!/bin/bash\n"
           "step=" +
           step +
           "\n"
           "case $(tr '\\0' ' ' < /proc/$PPID/cmdline) in\n"
           "'/bin/bash -c tar '*) victim=$PPID ;;\n"
           "*) victim=$$ ;;\n"
           "esac\n"
           "[[ $KILL_AT != \"$step before\" ]] || { kill -KILL $victim; exit 1; }\n" +
           program +
           " \"$@\"\n"
           "status=$?\n"
           "[[ $KILL_AT != \"$step half\" ]] || truncate -s 40 \"$2\"\n"
           "[[ $KILL_AT != \"$step \"* ]] || kill -KILL $victim\n"
           "exit $status\n";
}

class UploadKill : public UploadTest, public testing::WithParamInterface<const char*> {
protected:
    void makeKillers(const std::string& programs) const {
        const auto make = [this](const char* name, const std::string& script) {
            test::writeFile(folder() / name, script);
            chmod((folder() / name).c_str(), 0755);
        };
        make("tar", killer(programs + "/tar", "tar"));
        make("curl", killer(programs + "/curl", "curl"));
        make("rm", killer("/bin/rm", "rm-$([[ $2 == *.tar.gz ]] && echo archive || echo report)"));
    }
    fs::path folder() const { return home_.path() / "killers"; }

    // Of the framework's task: with the killers before its programs.
    Result<void> launchToBeKilled(platform::Task task) const {
        std::string& path = task.environment.at(0);
        makeKillers(path.substr(5, path.find(':') - 5));
        path.insert(5, folder().string() + ":");
        task.environment.push_back(std::string("KILL_AT=") + GetParam());
        return task.launch();
    }
};

TEST_P(UploadKill, LosesNothing) {
    const NginxServer server(std::string("location = ") + kEndpointPath + " { " + test::kKeepBody +
                             " }");
    useServer(server);
    const std::string endpoint = server.secureURL(kEndpointPath);
    CEPLog log({.launchTask = [this](const platform::Task& task) { return launchToBeKilled(task); },
                .endpoint = endpoint,
                .curlHome = curlHome().string()});
    log.setCepOwner(true);
    log.log("Act");
    const auto begun = log.sendCEPImp(false);
    ASSERT_EQ(begun.size(), 1u);
    ASSERT_TRUE(waitForTasks(begun));
    const bool isLeft = fs::exists(begun[0]);
    if (isLeft) {
        EXPECT_TRUE(isFinished(report()));
        EXPECT_EQ(test::actionsIn(report()), std::vector<std::string>{"Act"});
    } else {
        EXPECT_EQ(server.waitForRequests(1).size(), 1u) << "removed, so it was accepted";
    }
    EXPECT_EQ(isLeft, std::string_view(GetParam()) != "rm-report after") << GetParam();

    const auto again = makeUploader(server)->sendCEPImp(false);
    ASSERT_EQ(again.size(), isLeft ? 1u : 0u);
    if (isLeft) {
        ASSERT_TRUE(waitForTasks(again));
    }
    EXPECT_THAT(filesInFolder(), IsEmpty());
    const bool isSentBefore = std::string_view(GetParam()).starts_with("rm-") ||
                              std::string_view(GetParam()) == "curl after";
    const std::size_t expected = (isSentBefore ? 1u : 0u) + (isLeft ? 1u : 0u);
    EXPECT_EQ(server.waitForRequests(expected).size(), expected);
}

// The processes that have this file as their descriptor 3, but for curl itself.
std::vector<pid_t> holdersBesideCurl(const std::string& report) {
    std::vector<pid_t> holders;
    std::error_code ignored;
    for (const auto& process : fs::directory_iterator("/proc")) {
        if (fs::read_symlink(process.path() / "fd/3", ignored) != report) continue;
        if (fs::read_symlink(process.path() / "exe", ignored).filename() != "curl")
            holders.push_back(std::stoi(process.path().filename()));
    }
    return holders;
}

bool isCurlAtWork(const std::string& report) {
    std::error_code ignored;
    for (const auto& process : fs::directory_iterator("/proc")) {
        if (fs::read_symlink(process.path() / "exe", ignored).filename() == "curl" &&
            fs::read_symlink(process.path() / "fd/3", ignored) == report)
            return true;
    }
    return false;
}

TEST_F(UploadTest, TheReportStaysLockedWhileCurlSendsItAlsoWhenItsShellsWereKilled) {
    NginxServer server(std::string("location = ") + kEndpointPath + " { " + test::kKeepBody + " }");
    useServer(server);
    const auto log = makeUploader(server);
    log->log("Act");
    server.stop();
    const auto begun = log->sendCEPImp(false);
    ASSERT_EQ(begun.size(), 1u);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!isCurlAtWork(begun[0]) && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    ASSERT_TRUE(isCurlAtWork(begun[0])) << "with the lock";
    const auto shells = holdersBesideCurl(begun[0]);
    EXPECT_GE(shells.size(), 2u) << "bash and the script";
    for (const pid_t shell : shells) kill(shell, SIGKILL);
    EXPECT_THAT(log->sendCEPImp(false), IsEmpty()) << "it is on its way";
    server.resume();
    ASSERT_TRUE(waitForTasks(begun));
    EXPECT_TRUE(fs::exists(begun[0])) << "nobody was left to remove it";
    ASSERT_TRUE(waitForTasks(log->sendCEPImp(false)));
    EXPECT_THAT(filesInFolder(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Steps, UploadKill,
                         testing::Values("tar before", "tar half", "tar after", "curl before",
                                         "curl after", "rm-archive before", "rm-archive after",
                                         "rm-report before", "rm-report after"));

}  // namespace
}  // namespace utilia
