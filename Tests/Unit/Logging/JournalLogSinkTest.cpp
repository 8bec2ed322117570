#include <cstring>

#include <fcntl.h>
#include <sys/mman.h>

#include <gtest/gtest.h>

#include "Common/Logging/Log.h"
#include "Common/Platform/Linux/LogSinks.h"
#include "Tests/Support/JournalSocket.h"
#include "Tests/Support/TemporaryHome.h"

using namespace utilia;
using platform::makeJournalLogSink;
using test::JournalSocket;
using test::readWhole;

namespace {

const std::string kHead = "PRIORITY=6\nSYSLOG_IDENTIFIER=tool\n";

class JournalLogSink : public testing::Test {
protected:
    std::string path() const { return folder.path() / "socket"; }

    test::TemporaryFolder folder;
    JournalSocket journal{path()};
    std::shared_ptr<LogSink> sink = makeJournalLogSink(path(), "tool");
};

}  // namespace

TEST_F(JournalLogSink, SendsOneEntryALine) {
    ASSERT_TRUE(sink);
    EXPECT_TRUE(sink->write("hello é"));
    EXPECT_TRUE(sink->write(""));

    EXPECT_EQ(journal.receive().bytes, kHead + "MESSAGE=hello é\n");
    EXPECT_EQ(journal.receive().bytes, kHead + "MESSAGE=\n");
}

TEST_F(JournalLogSink, PutsTextWithLineBreaksBehindItsLength) {
    ASSERT_TRUE(sink);
    EXPECT_TRUE(sink->write("a\nPRIORITY=0\n"));

    EXPECT_EQ(journal.receive().bytes,
              kHead + "MESSAGE\n" + std::string("\x0D\0\0\0\0\0\0\0", 8) + "a\nPRIORITY=0\n\n");
}

TEST_F(JournalLogSink, LetsNoProcessNameAddAField) {
    const auto other = makeJournalLogSink(path(), "to\nPRIORITY=0");
    ASSERT_TRUE(other);
    EXPECT_TRUE(other->write("x"));

    EXPECT_EQ(journal.receive().bytes,
              "PRIORITY=6\nSYSLOG_IDENTIFIER=to\\nPRIORITY=0\nMESSAGE=x\n");
}

TEST_F(JournalLogSink, NeverWaitsForAJournalThatDoesNotRead) {
    ASSERT_TRUE(sink);
    setLogSink(sink);
    int taken = 0;
    while (sink->write("line") && taken < 1'000'000) ++taken;
    KULogVariadic("lost");
    KULogVariadic("lost");
    journal.drain();
    KULogVariadic("next");
    setLogSink(nullptr);

    EXPECT_GT(taken, 0);
    EXPECT_LT(taken, 1'000'000);
    EXPECT_EQ(journal.receive().bytes, kHead + "MESSAGE=2 earlier lines were dropped\n");
    EXPECT_EQ(journal.receive().bytes, kHead + "MESSAGE=next\n");
}

TEST_F(JournalLogSink, NeverWaitsWithALongLineEither) {
    ASSERT_TRUE(sink);
    while (sink->write("line")) {
    }
    EXPECT_FALSE(sink->write(std::string(500'000, 'x')));
}

TEST_F(JournalLogSink, SendsALongLineAsASealedFile) {
    ASSERT_TRUE(sink);
    const std::string line(500'000, 'x');
    EXPECT_TRUE(sink->write(line));

    const JournalSocket::Entry entry = journal.receive();
    ASSERT_TRUE(entry.file);
    EXPECT_EQ(entry.bytes, "");
    EXPECT_EQ(fcntl(entry.file.get(), F_GET_SEALS),
              F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL);
    EXPECT_EQ(readWhole(entry.file.get()), kHead + "MESSAGE=" + line + "\n");
}

TEST_F(JournalLogSink, CutsALineAboveOneMebibyte) {
    ASSERT_TRUE(sink);
    EXPECT_TRUE(sink->write(std::string(2'000'000, 'x')));

    const JournalSocket::Entry entry = journal.receive();
    ASSERT_TRUE(entry.file);
    const std::string text = readWhole(entry.file.get());
    const std::size_t kept = text.rfind('x') + 1 - kHead.size() - std::strlen("MESSAGE=");
    EXPECT_LE(text.size(), kHead.size() + std::strlen("MESSAGE=\n") + 1024 * 1024);
    EXPECT_TRUE(text.ends_with(" [" + std::to_string(2'000'000 - kept) + " more bytes]\n"));
}

TEST_F(JournalLogSink, FindsAJournalThatWasRestarted) {
    ASSERT_TRUE(sink);
    { const JournalSocket old = std::move(journal); }
    EXPECT_FALSE(sink->write("nobody there"));
    journal = JournalSocket(path());
    EXPECT_TRUE(sink->write("back"));

    EXPECT_EQ(journal.receive().bytes, kHead + "MESSAGE=back\n");
}

TEST_F(JournalLogSink, IsNoneWhereNobodyListens) {
    { const JournalSocket old = std::move(journal); }
    EXPECT_FALSE(makeJournalLogSink(path(), "tool")) << "a socket that was left behind";
    EXPECT_FALSE(makeJournalLogSink(folder.path() / "none", "tool"));
    EXPECT_FALSE(makeJournalLogSink(folder.path(), "tool"));
    EXPECT_FALSE(makeJournalLogSink("/" + std::string(200, 'x'), "tool"));
}
