#include <array>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Common/Logging/Log.h"
#include "Common/Platform/SystemLog.h"
#include "Common/Platform/UniqueFd.h"
#include "Tests/Support/TemporaryHome.h"

using namespace utilia;
using platform::makeJournalLogSink;
using platform::UniqueFd;

namespace {

// The journal's end of its socket.
class Journal final {
public:
    explicit Journal(const std::string& path)
        : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        unlink(path.c_str());
        if (bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            throw std::runtime_error("bind " + path);
        }
    }

    struct Entry {
        std::string bytes;
        UniqueFd file;
    };
    // The next datagram; its text is empty when there is none.
    Entry receive() {
        Entry entry;
        entry.bytes.resize(1 << 20);
        alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(int))> control{};
        iovec content{entry.bytes.data(), entry.bytes.size()};
        msghdr message{};
        message.msg_iov = &content;
        message.msg_iovlen = 1;
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        const ssize_t count = recvmsg(socket_.get(), &message, MSG_CMSG_CLOEXEC);
        entry.bytes.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
        if (const cmsghdr* const header = count < 0 ? nullptr : CMSG_FIRSTHDR(&message)) {
            int descriptor = -1;
            std::memcpy(&descriptor, CMSG_DATA(header), sizeof descriptor);
            entry.file.reset(descriptor);
        }
        return entry;
    }
    void drain() {
        while (!receive().bytes.empty()) {
        }
    }

private:
    UniqueFd socket_;
};

std::string readFile(int descriptor) {
    struct stat status {};
    fstat(descriptor, &status);
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    EXPECT_EQ(pread(descriptor, text.data(), text.size(), 0), status.st_size);
    return text;
}

const std::string kHead = "PRIORITY=6\nSYSLOG_IDENTIFIER=tool\n";

class JournalLogSink : public testing::Test {
protected:
    std::string path() const { return folder.path() / "socket"; }

    test::TemporaryFolder folder;
    Journal journal{path()};
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

    const Journal::Entry entry = journal.receive();
    ASSERT_TRUE(entry.file);
    EXPECT_EQ(entry.bytes, "");
    EXPECT_EQ(fcntl(entry.file.get(), F_GET_SEALS),
              F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE | F_SEAL_SEAL);
    EXPECT_EQ(readFile(entry.file.get()), kHead + "MESSAGE=" + line + "\n");
}

TEST_F(JournalLogSink, CutsALineAboveOneMebibyte) {
    ASSERT_TRUE(sink);
    EXPECT_TRUE(sink->write(std::string(2'000'000, 'x')));

    const Journal::Entry entry = journal.receive();
    ASSERT_TRUE(entry.file);
    const std::string text = readFile(entry.file.get());
    const std::size_t kept = text.rfind('x') + 1 - kHead.size() - std::strlen("MESSAGE=");
    EXPECT_LE(text.size(), kHead.size() + std::strlen("MESSAGE=\n") + 1024 * 1024);
    EXPECT_TRUE(text.ends_with(" [" + std::to_string(2'000'000 - kept) + " more bytes]\n"));
}

TEST_F(JournalLogSink, FindsAJournalThatWasRestarted) {
    ASSERT_TRUE(sink);
    { const Journal old = std::move(journal); }
    EXPECT_FALSE(sink->write("nobody there"));
    journal = Journal(path());
    EXPECT_TRUE(sink->write("back"));

    EXPECT_EQ(journal.receive().bytes, kHead + "MESSAGE=back\n");
}

TEST_F(JournalLogSink, IsNoneWhereNobodyListens) {
    { const Journal old = std::move(journal); }
    EXPECT_FALSE(makeJournalLogSink(path(), "tool")) << "a socket that was left behind";
    EXPECT_FALSE(makeJournalLogSink(folder.path() / "none", "tool"));
    EXPECT_FALSE(makeJournalLogSink(folder.path(), "tool"));
    EXPECT_FALSE(makeJournalLogSink("/" + std::string(200, 'x'), "tool"));
}

TEST(SystemLog, OpensNothingBeforeTheFirstLine) {
    const auto countDescriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                             std::filesystem::directory_iterator());
    };
    const auto before = countDescriptors();
    const auto sink = platform::makeSystemLogSink();
    ASSERT_TRUE(sink);
    EXPECT_EQ(countDescriptors(), before);
}
