#include <cerrno>
#include <csignal>
#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Common/Platform/Linux/PortMemory.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Unit/Ports/PortTestSupport.h"

namespace utilia::platform {
namespace {

using test::bytesOf;

std::string payload(std::size_t size, char first) {
    std::string text(size, '\0');
    for (std::size_t i = 0; i < size; ++i)
        text[i] = static_cast<char>(first + static_cast<int>(i % 23));
    return text;
}

UniqueFd written(PortMemoryWriter& writer, std::string_view text) {
    const PortMessage::Component components[] = {bytesOf(text)};
    auto file = writer.write(components);
    if (!file) {
        ADD_FAILURE() << file.error().description;
        return {};
    }
    return std::move(*file);
}

std::string read(const UniqueFd& file, std::size_t size) {
    PortMemoryBuffer buffer;
    if (const auto refusal = buffer.read(file, size)) return std::string(portRefusalText(*refusal));
    return test::textOf(buffer.bytes());
}

ino_t inodeOf(const UniqueFd& file) {
    struct stat found {};
    EXPECT_EQ(fstat(file.get(), &found), 0);
    return found.st_ino;
}

TEST(PortMemory, CarriesTheComponentsOneAfterTheOther) {
    PortMemoryWriter writer;
    const std::string one = payload(70'000, 'a'), two, three = payload(5, 'x');
    const PortMessage::Component components[] = {bytesOf(one), bytesOf(two), bytesOf(three)};
    const auto file = writer.write(components);
    ASSERT_TRUE(file);
    EXPECT_EQ(read(*file, 70'005), one + three);
}

TEST(PortMemory, IsUsedAgainWhenNobodyReadsItAnyMore) {
    PortMemoryWriter writer;
    ino_t first = 0;
    for (const char letter : {'a', 'b', 'c', 'd'}) {
        const std::string text = payload(100'000, letter);
        const UniqueFd file = written(writer, text);
        if (!first) first = inodeOf(file);
        EXPECT_EQ(inodeOf(file), first);
        EXPECT_EQ(read(file, text.size()), text);
    }
}

TEST(PortMemory, BelongsToItsMessageAsLongAsAnyDescriptorOfItIsOpen) {
    PortMemoryWriter writer;
    const std::string one = payload(100'000, 'a'), two = payload(100'000, 'b'),
                      three = payload(100'000, 'c');
    UniqueFd first = written(writer, one);
    const UniqueFd kept(dup(first.get()));
    first.reset();
    const UniqueFd second = written(writer, two);
    const UniqueFd third = written(writer, three);
    EXPECT_NE(inodeOf(second), inodeOf(kept));
    EXPECT_NE(inodeOf(third), inodeOf(second));
    EXPECT_EQ(read(kept, one.size()), one);
    EXPECT_EQ(read(second, two.size()), two);
    EXPECT_EQ(read(third, three.size()), three);
}

TEST(PortMemory, IsUsedAgainAfterTheDeathOfItsReader) {
    PortMemoryWriter writer;
    UniqueFd first = written(writer, payload(100'000, 'a'));
    const ino_t inode = inodeOf(first);
    const pid_t reader = fork();
    if (reader == 0) {
        for (;;) pause();
    }
    ASSERT_GT(reader, 0);
    first.reset();
    ASSERT_EQ(kill(reader, SIGKILL), 0);
    ASSERT_EQ(waitpid(reader, nullptr, 0), reader);
    EXPECT_EQ(inodeOf(written(writer, payload(100'000, 'b'))), inode);
}

TEST(PortMemory, OfAForkedChildIsItsOwn) {
    PortMemoryWriter writer;
    const std::string ours = payload(100'000, 'a');
    const ino_t inode = inodeOf(written(writer, ours));
    const pid_t child = fork();
    if (child == 0) {
        const std::string theirs = payload(100'000, 'b');
        const UniqueFd file = written(writer, theirs);
        const bool isOwn = inodeOf(file) != inode && read(file, theirs.size()) == theirs;
        _exit(isOwn ? 0 : 1);
    }
    ASSERT_GT(child, 0);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(inodeOf(written(writer, ours)), inode);
}

TEST(PortMemory, GrowsAndShrinksWithinItsStep) {
    PortMemoryWriter writer;
    ino_t first = 0;
    for (const std::size_t size : {70'000u, 131'072u, 66'000u, 131'072u, 65'537u}) {
        const std::string text = payload(size, static_cast<char>('a' + size % 7));
        const UniqueFd file = written(writer, text);
        if (!first) first = inodeOf(file);
        EXPECT_EQ(inodeOf(file), first);
        EXPECT_EQ(read(file, size), text);
    }
    const std::string larger = payload(131'073, 'z');
    const UniqueFd file = written(writer, larger);
    EXPECT_NE(inodeOf(file), first);
    EXPECT_EQ(read(file, larger.size()), larger);
}

TEST(PortMemory, IsGivenUpWithoutHarmToTheMessageUnderWay) {
    PortMemoryWriter writer;
    const std::string text = payload(100'000, 'a');
    const UniqueFd file = written(writer, text);
    EXPECT_TRUE(writer.keepsFile());
    writer.forget();
    EXPECT_FALSE(writer.keepsFile());
    EXPECT_EQ(read(file, text.size()), text);
}

TEST(PortMemory, CannotBeWrittenByItsReceiver) {
    PortMemoryWriter writer;
    const UniqueFd file = written(writer, payload(100'000, 'a'));
    EXPECT_EQ(write(file.get(), "x", 1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_NE(ftruncate(file.get(), 0), 0);
}

TEST(PortMemory, IsReadIntoOneBufferAfterTheOther) {
    PortMemoryWriter writer;
    PortMemoryBuffer buffer;
    for (const std::size_t size : {100'000u, 70'000u, 6u << 20, 80'000u}) {
        const std::string text = payload(size, 'q');
        const UniqueFd file = written(writer, text);
        ASSERT_FALSE(buffer.read(file, size));
        EXPECT_EQ(test::textOf(buffer.bytes()), text);
        buffer.release();
        EXPECT_TRUE(buffer.bytes().empty());
    }
}

// By what the kernel says of this process: nothing of the writer shows inside it.
bool mapsMessageMemory() {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find("utilia message") != std::string::npos) return true;
    }
    return false;
}

TEST(PortMemory, OfASenderThatHasFallenSilentIsGivenBack) {
    test::TemporaryHome home;
    test::PortUnderTest port("a");
    const auto sender = PortNameServer::systemDefaultPortNameServer().portForName("a");
    ASSERT_TRUE(sender);
    const std::string text = payload(100'000, 'a');
    // The second message finds the first one's memory, unless the machine takes longer for both than it is kept.
    std::size_t count = 0;
    do {
        test::sendText(sender, 1, text);
        ++count;
        ASSERT_TRUE(test::runUntil([&] { return port.messages().size() == count; }));
    } while ((count < 2 || !mapsMessageMemory()) && count < 100);
    EXPECT_TRUE(mapsMessageMemory());
    EXPECT_TRUE(test::runUntil([] { return !mapsMessageMemory(); }));
    test::sendText(sender, 1, text);
    EXPECT_TRUE(test::runUntil([&] { return port.messages().size() == count + 1; }));
    EXPECT_EQ(port.messages()[count].components, std::vector{text});
}

}  // namespace
}  // namespace utilia::platform
