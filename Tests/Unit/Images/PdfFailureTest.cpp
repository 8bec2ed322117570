// PDF files where something is missing: memory, threads, room, rights.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Common/Platform/FileManager.h"
#include "Common/Platform/PDFContext.h"
#include "Common/UtiliaCommon/Auxiliary/ImageExport.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/PrivateMounts.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"
#include "Tests/Unit/Images/PdfFixture.h"

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;

namespace fs = std::filesystem;

namespace {

constexpr uid_t kNobody = 65534;

std::string contentOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

Data bytesOf(std::string_view text) { return Data(text.begin(), text.end()); }

bool save(const std::shared_ptr<Image>& image, const fs::path& path) {
    return CommonAuxiliary::sharedInstance().saveImageAsPDF(image, path.native(), 100);
}

TEST(PdfFailures, OfMemoryGiveNoDocumentAndNoFile) {
    const TestLog log;
    const TemporaryFolder folder(folderInMemory());
    const auto image = imageOf(noisyPicture(300, 900, false));
    const fs::path path = folder.path() / "pages.pdf";
    bool isSaved = false;
    const std::size_t runs = forEachFault(
        memoryFaults(), [&] { fs::remove(path); }, [&] { isSaved = save(image, path); },
        [&](const FaultRun&) {
            EXPECT_EQ(isSaved, fs::exists(path));
            if (!isSaved) return;
            expectPagesOf(readPdf(bytesOf(contentOf(path))), *image->CGImage().value(), 100);
        });
    EXPECT_EQ(runs > 0, !memoryFaults().empty());
}

// Workers have what they need in memory of their own.
TEST(PdfFailures, OfMemoryOnAnyThreadEndTheWork) {
    if (memoryFaults().empty()) GTEST_SUCCEED();
    const auto picture = std::make_shared<const BitmapImageRep>(noisyPicture(300, 3000));
    std::size_t failures = 0;
    std::size_t documents = 0;
    for (unsigned ordinal = 1; ordinal < 120 && !memoryFaults().empty(); ++ordinal) {
        const auto pdf = PDFContext::create({.maximumThreads = 4});
        ASSERT_TRUE(pdf);
        Result<Data> document = Data();
        {
            const ArmedFault fault(memoryFaults().front(), ordinal, FaultRepetition::Once,
                                   FaultThreads::All);
            auto done = (*pdf)->beginPage({0, 0, 300, 3000});
            if (done) done = (*pdf)->drawImage({picture, 0, 3000}, {0, 0, 300, 3000});
            if (done) done = (*pdf)->endPage();
            document = done ? (*pdf)->close() : Result<Data>(done.error());
        }
        if (document) {
            ++documents;
            expectPagesOf(readPdf(*document), *picture, 3000);
        } else {
            ++failures;
        }
    }
    EXPECT_EQ(failures > 0, !memoryFaults().empty());
    EXPECT_EQ(documents > 0, !memoryFaults().empty()) << "fewer threads are no failure";
}

TEST(PdfFailures, OfTheFileLeaveNoneThatWasNotThere) {
    const TestLog log;
    const TemporaryFolder folder(folderInMemory());
    const auto image = imageOf(gradientPicture(50, 200));
    const fs::path path = folder.path() / "pages.pdf";
    const fs::path link = folder.path() / "link.pdf";
    fs::create_symlink("pages.pdf", link);  // that leads nowhere
    for (const fs::path& name : {path, link}) {
        bool isSaved = false;
        const std::size_t runs = forEachFault(
            storageFaults(), [&] { fs::remove(path); }, [&] { isSaved = save(image, name); },
            [&](const FaultRun& run) {
                const bool isRemoved = run.fault.call != kUtiliaFaultUnlink;
                if (isSaved) {
                    expectPagesOf(readPdf(bytesOf(contentOf(path))), *image->CGImage().value(),
                                  100);
                } else if (isRemoved) {
                    EXPECT_FALSE(fs::exists(path));
                }
                EXPECT_TRUE(fs::is_symlink(link));
            });
        EXPECT_GT(runs, 5u);
    }
}

TEST(PdfFailures, OfTheFileKeepItWhenItWasThere) {
    const TestLog log;
    const TemporaryFolder folder(folderInMemory());
    const auto image = imageOf(gradientPicture(50, 200));
    const fs::path path = folder.path() / "pages.pdf";
    std::ofstream(path) << "before";
    fs::permissions(path, fs::perms(0640));
    const auto status = [&path] {
        struct stat found {};
        EXPECT_EQ(stat(path.c_str(), &found), 0);
        return std::tuple(found.st_dev, found.st_ino, found.st_uid, found.st_gid, found.st_mode);
    };
    const auto before = status();
    bool isSaved = false;
    std::size_t saved = 0;
    const std::size_t runs = forEachFault(
        storageFaults(), [] {}, [&] { isSaved = save(image, path); },
        [&](const FaultRun&) {
            EXPECT_EQ(status(), before);
            saved += isSaved;
            if (isSaved) {
                expectPagesOf(readPdf(bytesOf(contentOf(path))), *image->CGImage().value(), 100);
            }
        });
    EXPECT_GT(runs, 5u);
    EXPECT_LT(saved, runs);
}

TEST(PdfFailures, AreErrorsWithTheFileAndNoLines) {
    const TestLog log;
    const TemporaryFolder folder;
    const fs::path path = folder.path() / "missing" / "pages.pdf";
    EXPECT_FALSE(save(imageOf(gradientPicture(5, 5)), path));
    EXPECT_FALSE(save(imageOf(gradientPicture(5, 5)), folder.path()));
    EXPECT_TRUE(log.lines().empty());
    const auto exported = exportedPDF(imageOf(gradientPicture(5, 5)), 0);
    ASSERT_TRUE(exported);
    EXPECT_EQ(FileManager::writeToFile(path.string(), *exported).error().description,
              "open " + path.string() + ": No such file or directory");
    EXPECT_EQ(FileManager::writeToFile(folder.path().string(), *exported).error().description,
              "open " + folder.path().string() + ": Is a directory");
    EXPECT_FALSE(fs::exists(path.parent_path()));
}

TEST(PdfFailures, OfRightsLeaveTheFileAsItWas) {
    const TemporaryFolder folder;
    fs::permissions(folder.path(), fs::perms(0755));
    const fs::path path = folder.path() / "others.pdf";
    std::ofstream(path) << "before";
    fs::permissions(path, fs::perms(0444));
    const PrivateMounts mounts;
    EXPECT_TRUE(mounts.run(
        [&] {
            const auto image = imageOf(gradientPicture(5, 5));
            EXPECT_FALSE(save(image, path));
            EXPECT_FALSE(save(image, folder.path() / "new.pdf"));
        },
        kNobody));
    EXPECT_EQ(contentOf(path), "before");
    EXPECT_FALSE(fs::exists(folder.path() / "new.pdf"));
}

TEST(PdfFailures, OfRoomLeaveNoHalfFile) {
    const TemporaryFolder folder;
    PrivateMounts mounts;
    mounts.limitSpace(folder.path(), 256 * 1024);
    const fs::path path = folder.path() / "pages.pdf";
    const fs::path there = folder.path() / "there.pdf";
    EXPECT_TRUE(mounts.run([&] {
        const auto large = imageOf(noisyPicture(400, 1000));
        const auto small = imageOf(gradientPicture(40, 100));
        EXPECT_FALSE(save(large, path));
        EXPECT_FALSE(fs::exists(path));
        EXPECT_TRUE(save(small, there));
        EXPECT_FALSE(save(large, there));
        EXPECT_TRUE(fs::exists(there)) << "what was there is not removed";
        EXPECT_TRUE(save(small, there));
        expectPagesOf(readPdf(bytesOf(contentOf(there))), *small->CGImage().value(), 100);
    }));
}

TEST(PdfFailures, OnAFileSystemThatCannotBeWrittenAreAnswered) {
    const TemporaryFolder folder;
    PrivateMounts mounts;
    mounts.makeReadOnly(folder.path());
    EXPECT_TRUE(mounts.run(
        [&] { EXPECT_FALSE(save(imageOf(gradientPicture(4, 4)), folder.path() / "pages.pdf")); }));
}

TEST(PdfFailures, AreWhatIsNoRegularFile) {
    const TemporaryFolder folder;
    const auto image = imageOf(gradientPicture(4, 4));
    const fs::path pipe = folder.path() / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_FALSE(save(image, pipe));
    EXPECT_FALSE(save(image, "/dev/full"));
    EXPECT_FALSE(save(image, ""));
    EXPECT_TRUE(fs::is_fifo(pipe));
}

// As another user, who may have no thread more than there are.
TEST(PdfFailures, OfThreadsMakeTheSameDocumentWithOne) {
    const BitmapImageRep picture = noisyPicture(700, 3000);
    const Data wanted = pdfOf(picture, 1000);
    const PrivateMounts mounts;
    EXPECT_TRUE(mounts.run(
        [&] {
            const rlimit none{0, 0};
            ASSERT_EQ(setrlimit(RLIMIT_NPROC, &none), 0);
            EXPECT_THROW(std::thread([] {}).detach(), std::system_error);
            EXPECT_EQ(pdfOf(picture, 1000), wanted);
        },
        kNobody));
}

UTILIA_CHILD_ROLE(countThreads) {
    // Of the exports; a sanitizer may have one of its own.
    const auto threads = [] {
        int count = 0;
        for (const auto& task : fs::directory_iterator("/proc/self/task"))
            count += contentOf(task.path() / "comm") == "utilia-export\n";
        return count;
    };
    const auto image = imageOf(noisyPicture(700, 6000));
    const auto small = imageOf(gradientPicture(100, 100));
    auto& auxiliary = CommonAuxiliary::sharedInstance();
    int most = 0;
    bool isOneExpected = false;
    const auto watch = [&](double) {
        // A thread has its name a moment after it has been started, and stays until the end.
        do {
            most = std::max(most, threads());
        } while (isOneExpected && most == 0);
        return true;
    };
    static_cast<void>(auxiliary.dataForImageAsPDF(small, 0, watch));
    self.say(std::to_string(most));
    isOneExpected = std::thread::hardware_concurrency() > 1;
    static_cast<void>(auxiliary.dataForImageAsPDF(image, 0, watch));
    self.say(std::to_string(most));
    self.say(std::to_string(threads()));
    return 0;
}

TEST(PdfFailures, DoNotComeFromThreadsThatStay) {
    auto child = ChildProcess::role("countThreads");
    EXPECT_EQ(child.waitForLine(), "0") << "a small picture starts no thread";
    const unsigned most = static_cast<unsigned>(std::stoi(child.waitForLine().value_or("99")));
    EXPECT_LE(most, 3u);
    EXPECT_EQ(most > 0, std::thread::hardware_concurrency() > 1);
    EXPECT_EQ(child.waitForLine(), "0") << "a large one leaves none";
}

}  // namespace
