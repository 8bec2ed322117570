#include <array>
#include <csignal>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <limits.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Common/Foundation/Unicode.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/Linux/LogSinks.h"
#include "Common/Platform/UniqueFd.h"
#include "Tests/Support/LogPipe.h"
#include "Tests/Support/TemporaryHome.h"

using namespace utilia;
using platform::makeDescriptorLogSink;
using platform::UniqueFd;
using test::LogPipe;

namespace {

std::string prefix(const std::string& name = "tool") {
    return name + "[" + std::to_string(getpid()) + "]: ";
}

const std::string kUnreadLine = "a line that nobody reads";

// Writes until a line is refused; answers how many were taken.
int fill(LogSink& sink) {
    int taken = 0;
    while (sink.write(kUnreadLine)) {
        if (++taken == 1'000'000) ADD_FAILURE() << "the receiver never fills up";
    }
    return taken;
}

// While one lives, no descriptor can be opened.
class NoDescriptors final {
public:
    NoDescriptors() {
        getrlimit(RLIMIT_NOFILE, &before_);
        // poll() takes no more descriptors than the limit allows.
        const rlimit none{1, before_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

private:
    rlimit before_{};
};

}  // namespace

TEST(DescriptorLogSink, WritesNameProcessAndLine) {
    const LogPipe pipe;
    const auto sink = makeDescriptorLogSink(pipe.writer.get(), "tool");

    EXPECT_TRUE(sink->write("hello"));
    EXPECT_TRUE(sink->write(""));
    EXPECT_EQ(pipe.readAll(), prefix() + "hello\n" + prefix() + "\n");
}

TEST(DescriptorLogSink, AppendsToARegularFile) {
    const test::TemporaryFolder folder;
    const std::string path = folder.path() / "log";
    const UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    const auto sink = makeDescriptorLogSink(file.get(), "tool");
    EXPECT_TRUE(sink->write("one"));
    EXPECT_TRUE(sink->write("two"));

    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    EXPECT_EQ(text.str(), prefix() + "one\n" + prefix() + "two\n");
}

TEST(DescriptorLogSink, LetsNoTextForgeALine) {
    const LogPipe pipe;
    const auto sink = makeDescriptorLogSink(pipe.writer.get(), "to\nol");

    EXPECT_TRUE(sink->write("a\nagent[1]: all is well\r\x1B[2K"));
    EXPECT_EQ(pipe.readAll(), prefix("to\\nol") + "a\\nagent[1]: all is well\\r\\u001B[2K\n");
}

TEST(DescriptorLogSink, NeverWaitsForAPipeThatNobodyReads) {
    const LogPipe pipe;
    const auto sink = makeDescriptorLogSink(pipe.writer.get(), "tool");

    const int taken = fill(*sink);
    EXPECT_GT(taken, 0);
    EXPECT_FALSE(sink->write(kUnreadLine));
    EXPECT_EQ(fcntl(pipe.writer.get(), F_GETFL) & O_NONBLOCK, 0) << "the shared flag was changed";

    const std::string text = pipe.readAll();
    EXPECT_EQ(text.size(),
              static_cast<std::size_t>(taken) * (prefix().size() + kUnreadLine.size() + 1))
        << "a line was taken in part";
    EXPECT_TRUE(sink->write("room again"));
    EXPECT_EQ(pipe.readAll(), prefix() + "room again\n");
}

TEST(DescriptorLogSink, NeverWaitsWhereThePipeCannotBeOpenedAnew) {
    const LogPipe pipe;
    const auto sink = makeDescriptorLogSink(pipe.writer.get(), "tool");
    int taken = 0;
    {
        const NoDescriptors limit;
        ASSERT_EQ(open("/dev/null", O_RDONLY | O_CLOEXEC), -1);
        taken = fill(*sink);
    }
    EXPECT_GT(taken, 0);
    EXPECT_EQ(pipe.readAll().size(),
              static_cast<std::size_t>(taken) * (prefix().size() + kUnreadLine.size() + 1));
}

TEST(DescriptorLogSink, CountsWhatAFullPipeDidNotTake) {
    const LogPipe pipe;
    setLogSink(makeDescriptorLogSink(pipe.writer.get(), "tool"));
    fill(*makeDescriptorLogSink(pipe.writer.get(), "tool"));
    for (int i = 0; i < 3; ++i) KULogVariadic(kUnreadLine);
    pipe.readAll();
    KULogVariadic("next");
    setLogSink(nullptr);

    EXPECT_EQ(pipe.readAll(), prefix() + "3 earlier lines were dropped\n" + prefix() + "next\n");
}

TEST(DescriptorLogSink, OutlivesAReaderThatIsGone) {
    LogPipe pipe;
    const auto sink = makeDescriptorLogSink(pipe.writer.get(), "tool");
    pipe.reader.reset();

    EXPECT_FALSE(sink->write("nobody there"));
    const NoDescriptors limit;
    EXPECT_FALSE(sink->write("nobody there"));
}

TEST(DescriptorLogSink, NeverWaitsForASocketThatNobodyReads) {
    std::array<int, 2> ends{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    UniqueFd reader(ends[0]);
    const UniqueFd writer(ends[1]);
    const auto sink = makeDescriptorLogSink(writer.get(), "tool");

    EXPECT_GT(fill(*sink), 0);
    reader.reset();
    EXPECT_FALSE(sink->write("nobody there"));
}

TEST(DescriptorLogSink, RefusesLinesForADescriptorThatIsClosed) {
    LogPipe pipe;
    const auto sink = makeDescriptorLogSink(pipe.writer.get(), "tool");
    pipe.writer.reset();

    EXPECT_FALSE(sink->write("nowhere"));
}

TEST(DescriptorLogSink, FollowsADescriptorThatTheHostReplaces) {
    const LogPipe first;
    const LogPipe second;
    const auto sink = makeDescriptorLogSink(first.writer.get(), "tool");
    EXPECT_TRUE(sink->write("one"));
    ASSERT_NE(dup3(second.writer.get(), first.writer.get(), O_CLOEXEC), -1);
    EXPECT_TRUE(sink->write("two"));

    EXPECT_EQ(first.readAll(), prefix() + "one\n");
    EXPECT_EQ(second.readAll(), prefix() + "two\n");
}

TEST(DescriptorLogSink, CutsALineThatAPipeWouldNotTakeWhole) {
    const LogPipe pipe;
    const auto sink = makeDescriptorLogSink(pipe.writer.get(), "tool");
    std::string line;
    for (int i = 0; i < 3000; ++i) line += "é";
    EXPECT_TRUE(sink->write(line));

    const std::string text = pipe.readAll();
    EXPECT_LE(text.size(), static_cast<std::size_t>(PIPE_BUF));
    EXPECT_TRUE(isValidUtf8(text));
    const std::size_t kept = text.rfind("é") + 2;
    const std::string rest =
        " [" + std::to_string(prefix().size() + line.size() - kept) + " more bytes]\n";
    EXPECT_EQ(text.substr(kept), rest);
    EXPECT_EQ(text.substr(0, kept), (prefix() + line).substr(0, kept));
}

TEST(DescriptorLogSink, TakesALineOfExactlyTheLimitWhole) {
    const LogPipe pipe;
    const auto sink = makeDescriptorLogSink(pipe.writer.get(), "tool");
    const std::string line(PIPE_BUF - 1 - prefix().size(), 'x');
    EXPECT_TRUE(sink->write(line));

    EXPECT_EQ(pipe.readAll(), prefix() + line + "\n");
}

TEST(DescriptorLogSink, StartsOnALineOfItsOwnAfterOneThatWasTakenInPart) {
    const test::TemporaryFolder folder;
    const std::string path = folder.path() / "log";
    const UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    const auto sink = makeDescriptorLogSink(file.get(), "tool");
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit tenBytes{10, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &tenBytes);
    const bool taken = sink->write("does not fit");
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_FALSE(taken);
    EXPECT_TRUE(sink->write("fits"));

    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    EXPECT_EQ(text.str(), (prefix() + "does not fit").substr(0, 10) + "\n" + prefix() + "fits\n");
}

TEST(DescriptorLogSink, KeepsErrnoOfTheCaller) {
    const LogPipe pipe;
    const auto sink = makeDescriptorLogSink(pipe.writer.get(), "tool");
    errno = E2BIG;
    fill(*sink);

    EXPECT_EQ(errno, E2BIG);
}
