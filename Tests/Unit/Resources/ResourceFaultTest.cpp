// Installation when system calls fail, when it is killed, and when there is no room: the whole old
// copy or the whole new one is there, and the record never tells of a version that is not.

#include <array>
#include <cerrno>
#include <ostream>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include "Common/Platform/FileManager.h"
#include "Common/UtiliaCommon/Resources/VersionManager.h"
#include "Tests/Process/UnprivilegedUser.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/PrivateMounts.h"
#include "Tests/Unit/Resources/ResourceFixture.h"

namespace utilia {
namespace {

namespace fs = std::filesystem;
using test::contentOf;
using test::Fault;
using test::FaultRun;
using test::modeOf;
using test::writeFile;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

constexpr Fault kModeCannotBeSet{kUtiliaFaultMode, kUtiliaFaultError, EPERM, false};

dev_t fileSystemOf(const fs::path& path) {
    struct stat found {};
    if (stat(path.c_str(), &found) != 0) throw std::runtime_error("stat " + path.string());
    return found.st_dev;
}

struct Place {
    const char* text;
    bool isOtherFileSystem;
    const char* name;
};

void PrintTo(const Place& place, std::ostream* out) { *out << place.text; }

// Counts up: version and content of each installation are a number.
class ResourceFaults : public test::ResourceFixture, public testing::WithParamInterface<Place> {
protected:
    ResourceFaults() : ResourceFixture(test::folderInMemory(), GetParam().name) {}
    // Where the files that are to be installed lie: on the container's file system, or another.
    bool isOtherFileSystem() const { return GetParam().isOtherFileSystem; }
    fs::path givenFolder() const { return isOtherFileSystem() ? elsewhere_.path() : home_.path(); }
    fs::path given() const { return givenFolder() / "given"; }

    void SetUp() override {
        ASSERT_EQ(fileSystemOf(givenFolder()) != fileSystemOf(home_.path()), isOtherFileSystem())
            << "this needs a temporary folder and a folder in memory on two file systems";
    }
    // Of more than one read.
    static std::string content(std::uint64_t number) {
        return std::to_string(number) + std::string(200'000, 'x') + std::to_string(number);
    }
    static std::optional<std::uint64_t> numberOf(const fs::path& path) {
        const std::string text = contentOf(path);
        const std::uint64_t number = std::strtoull(text.c_str(), nullptr, 10);
        return text == content(number) ? std::optional(number) : std::nullopt;
    }
    void giveNext() {
        fs::remove(given());
        writeFile(given(), content(++number_));
        version_ = IndexPath{9, 0, 0, number_};
    }
    void installGiven() {
        ResourceManager::addResourceFile(given().string(), name_, IndexPath{9, 0, 0, number_}, 1,
                                         kBundleId);
    }
    // Of everything but the last number.
    void expectWhole() {
        const auto found = numberOf(installed());
        ASSERT_TRUE(found == number_ || found == number_ - 1) << found.value_or(0);
        EXPECT_EQ(modeOf(installed()), 0755u);
        EXPECT_TRUE(found == number_ || numberOf(given()) == number_) << "the given file stays";
        const auto version = record_.version();
        ASSERT_TRUE(version == (IndexPath{9, 0, 0, number_}) ||
                    version == (IndexPath{9, 0, 0, number_ - 1}));
        EXPECT_TRUE(version == (IndexPath{9, 0, 0, number_ - 1}) || found == number_)
            << "the record tells of what is not there";
        EXPECT_EQ(record_.path(), installed().string());
        EXPECT_EQ(chosenPath(), installed().string());
    }
    // The old copy is kept under no other name, in no folder.
    void expectNoBackup() const {
        if (!fs::exists(folder())) return;
        for (const auto& entry : fs::recursive_directory_iterator(folder()))
            EXPECT_NE(entry.path().extension(), ".bak");
    }
    void expectNoStrangers() const {
        for (const auto& entry : fs::directory_iterator(installed().parent_path()))
            EXPECT_EQ(entry.path().filename(), installed().filename());
    }
    void installNextInPeace() {
        giveNext();
        installGiven();
        EXPECT_EQ(numberOf(installed()), number_);
        EXPECT_EQ(record_.version(), (IndexPath{9, 0, 0, number_}));
        EXPECT_FALSE(fs::exists(given()));
        expectNoStrangers();
    }

    const test::TemporaryFolder elsewhere_;
    std::uint64_t number_ = 0;
    std::optional<IndexPath> version_;
};

INSTANTIATE_TEST_SUITE_P(
    From, ResourceFaults,
    testing::Values(Place{"TheSameFileSystem", false, test::kResourceName},
                    Place{"AnotherFileSystem", true, test::kResourceName},
                    Place{"TheSameFileSystemIntoFolders", false, test::kInnerResourceName},
                    Place{"AnotherFileSystemIntoFolders", true, test::kInnerResourceName}),
    [](const auto& from) { return from.param.text; });

TEST_P(ResourceFaults, InstallationMovesTheFile) {
    installNextInPeace();
    installNextInPeace();
    EXPECT_THAT(log_.lines(), ElementsAre());
}

TEST_P(ResourceFaults, InstallationTakesTimesAndAttributesAlong) {
    giveNext();
    const platform::FileManager::ExtendedAttribute attribute{"note", Data{1, 2, 3}};
    ASSERT_TRUE(platform::FileManager::setExtendedAttribute(given().string(), attribute.name,
                                                            attribute.value));
    const timespec times[] = {{1'000'000'000, 0}, {1'100'000'000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, given().c_str(), times, 0), 0);
    installGiven();
    struct stat found {};
    ASSERT_EQ(stat(installed().c_str(), &found), 0);
    EXPECT_EQ(found.st_mtim.tv_sec, 1'100'000'000);
    const auto taken = platform::FileManager::extendedAttribute(installed().string(), "note", 10);
    EXPECT_TRUE(taken && *taken == attribute.value);
}

TEST_P(ResourceFaults, FailingCallsLeaveTheOldCopyOrTheNewOne) {
    installNextInPeace();
    std::size_t failed = 0;
    const std::size_t runs = test::forEachFault(
        test::storageFaults(),
        [&] {
            installNextInPeace();
            giveNext();
            log_.clear();
        },
        [&] { installGiven(); },
        [&](const FaultRun& run) {
            expectWhole();
            expectNoStrangers();
            if (numberOf(installed()) == number_ - 1) {
                ++failed;
                EXPECT_EQ(log_.count("Error while "), 1u) << "told once";
                EXPECT_EQ(modeOf(given()), 0644u);
            } else if (fs::exists(given())) {
                EXPECT_EQ(run.fault.call, kUtiliaFaultUnlink);
                EXPECT_EQ(log_.count("stays in the old one too"), 1u);
            }
        });
    EXPECT_GT(runs, failed);
    EXPECT_GT(failed, 0u);
}

TEST_P(ResourceFaults, MissingMemoryLeavesTheOldCopyOrTheNewOne) {
    installNextInPeace();
    const std::string file = given().string();
    const std::size_t runs = test::forEachFault(
        test::memoryFaults(),
        [&] {
            installNextInPeace();
            giveNext();
            log_.clear();
        },
        [&] {
            try {
                ResourceManager::addResourceFile(file, name_, version_, 1, kBundleId);
            } catch (const std::exception& thrown) {
                ADD_FAILURE() << "left the library: " << thrown.what();
            }
        },
        [&](const FaultRun&) {
            expectWhole();
            expectNoStrangers();
            if (numberOf(installed()) == number_ - 1) {
                EXPECT_EQ(modeOf(given()), 0644u);
                EXPECT_FALSE(log_.lines().empty());
            }
        });
    EXPECT_EQ(runs > 0, !test::memoryFaults().empty());
}

TEST_P(ResourceFaults, MissingMemoryNeverHasAnOlderCopyChosen) {
    giveNext();
    ResourceManager::addResourceFile(given().string(), name_, IndexPath{5, 1, 2, 3456}, 1,
                                     kBundleId);
    std::string path;
    IndexPath version;
    const std::size_t runs = test::forEachFault(
        test::memoryFaults(),
        [&] {
            try {
                path = ResourceManager::getMostActualResourcePath(name_, *bundle_);
                version = ResourceManager::getMostActualResourceVersion(name_, kBundleId);
            } catch (const std::exception& thrown) {
                ADD_FAILURE() << "left the library: " << thrown.what();
            }
        },
        [&](const FaultRun&) {
            EXPECT_TRUE(path.empty() || path == internal().string()) << path;
            EXPECT_TRUE(version == (IndexPath{5, 1, 2, 3456}) || version == IndexPath{0} ||
                        version == IndexPath());
            log_.clear();
        });
    EXPECT_EQ(runs > 0, !test::memoryFaults().empty());
}

TEST_P(ResourceFaults, AModeThatCannotBeSetKeepsTheRecordBecauseTheNewCopyDoesNotRun) {
    installNextInPeace();
    giveNext();
    {
        const test::ArmedFault fault(kModeCannotBeSet, 1, test::FaultRepetition::ForEver);
        installGiven();
        EXPECT_GT(fault.hits(), 0u);
    }
    EXPECT_THAT(log_.lines(), ElementsAre(StartsWith("Error while setting attributes: Error "
                                                     "Domain=NSCocoaErrorDomain Code=513 ")));
    EXPECT_EQ(numberOf(installed()), number_) << "the new file is in place";
    EXPECT_EQ(modeOf(installed()), 0644u);
    EXPECT_FALSE(fs::exists(given()));
    EXPECT_EQ(record_.version(), (IndexPath{9, 0, 0, number_ - 1}));
    installNextInPeace();
}

// A reader between the two would otherwise see a version whose file it cannot find.
TEST_P(ResourceFaults, ThePathIsRecordedFirstBecauseAVersionPromisesItsFile) {
    constexpr unsigned kMoreThanEnough = 8;
    int pathsAlone = 0;
    for (unsigned ordinal = 1; ordinal <= kMoreThanEnough; ++ordinal) {
        const std::string name = "resource " + std::to_string(ordinal);
        giveNext();
        {
            const test::ArmedFault fault(
                {.call = kUtiliaFaultRename, .kind = kUtiliaFaultError, .error = EIO}, ordinal,
                test::FaultRepetition::ForEver);
            ResourceManager::addResourceFile(given().string(), name, IndexPath{9, 0, 0, number_}, 1,
                                             kBundleId);
        }
        const SharedResource record(name, kBundleId);
        EXPECT_TRUE(record.path() || !record.version()) << "rename " << ordinal;
        pathsAlone += record.path() && !record.version();
    }
    EXPECT_GT(pathsAlone, 0);
}

TEST_P(ResourceFaults, DeathAtAnyCallLeavesTheOldCopyOrTheNewOne) {
    installNextInPeace();
    giveNext();
    const std::size_t points = test::forEachKillPoint(
        1, [&] { installGiven(); },
        [&](const test::KillPoint&) {
            expectWhole();
            expectNoBackup();
            installNextInPeace();
            giveNext();
        });
    EXPECT_GT(points, 20u);
}

TEST_P(ResourceFaults, DeathDuringTheFirstInstallationLeavesNothingOrAWholeCopy) {
    giveNext();
    const std::size_t points = test::forEachKillPoint(
        1, [&] { installGiven(); },
        [&](const test::KillPoint&) {
            EXPECT_TRUE(fs::exists(installed()) || numberOf(given()) == number_);
            EXPECT_TRUE(!fs::exists(installed()) || numberOf(installed()) == number_);
            if (chosenPath() != internal().string()) {
                EXPECT_EQ(chosenPath(), installed().string());
                EXPECT_EQ(record_.version(), (IndexPath{9, 0, 0, number_}));
                EXPECT_EQ(numberOf(installed()), number_);
            }
            fs::remove_all(home_.groupContainer());
            giveNext();
        });
    EXPECT_GT(points, 20u);
}

// Half a file is never put in place, at whatever byte the room ends.
TEST_P(ResourceFaults, ALimitOfTheFileSizeLeavesTheOldCopy) {
    installNextInPeace();
    struct sigaction before {};
    struct sigaction ignored {};
    ignored.sa_handler = SIG_IGN;
    ASSERT_EQ(sigaction(SIGXFSZ, &ignored, &before), 0);
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
    for (const rlim_t size : {50'000u, 131'072u, 131'073u, 199'999u}) {
        giveNext();
        log_.clear();
        const rlimit small{size, old.rlim_max};
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
        installGiven();
        ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &old), 0);
        expectWhole();
        expectNoStrangers();
        if (isOtherFileSystem()) {
            EXPECT_THAT(log_.lines(), ElementsAre(StartsWith("Error while replacing resource: ")));
            EXPECT_EQ(numberOf(given()), number_);
        }
        installNextInPeace();
    }
    ASSERT_EQ(sigaction(SIGXFSZ, &before, nullptr), 0);
}

// Children in a mount namespace of their own, as no test may fill or lock the machine's disks.

class ResourceRoom : public test::ResourceFixture {
protected:
    test::PrivateMounts mounts_;
};

// Says the log, what is installed, the recorded version and whether the given file is still there.
void report(const test::ChildRole& self, const test::TestLog& log, const fs::path& container,
            const fs::path& given) {
    const SharedResource record("converter", "com.korvane.utilia.SampleTool");
    const auto lines = log.lines();
    self.say(lines.empty() ? "nothing is logged" : lines.front());
    self.say(std::to_string(
        contentOf(container / "Resources/com.korvane.utilia.SampleTool/converter").size()));
    self.say(VersionManager::versionToStringReportForm(record.version()));
    self.say(fs::exists(given) ? "still there" : "gone");
}

// Arguments: container, file to give.
UTILIA_CHILD_ROLE(installUntilTheDiskIsFull) {
    const test::TestLog log;
    const fs::path container = self.arguments.at(0);
    const fs::path given = self.arguments.at(1);
    std::uint64_t pages = 0;
    while (log.lines().empty() && pages < 64) {
        writeFile(given, std::string(++pages * 4096, 'x'));
        ResourceManager::addResourceFile(given.string(), "converter", IndexPath{9, 0, 0, pages}, 1,
                                         "com.korvane.utilia.SampleTool");
    }
    self.say(std::to_string(pages));
    report(self, log, container, given);
    const auto folder = container / "Resources/com.korvane.utilia.SampleTool";
    self.say(std::to_string(std::distance(fs::directory_iterator(folder), {})));
    return 0;
}

TEST_F(ResourceRoom, AFullDiskKeepsTheOldCopy) {
    install("first", IndexPath{1, 0, 0, 0});
    const test::TemporaryFolder elsewhere;
    mounts_.limitSpace(home_.data().string(), 40 * 4096);
    auto child = test::ChildProcess::role(
        "installUntilTheDiskIsFull",
        {home_.groupContainer().string(), (elsewhere.path() / "given").string()},
        {.mounts = &mounts_});
    const int pages = std::stoi(child.waitForLine().value_or("0"));
    ASSERT_GT(pages, 2);
    ASSERT_LT(pages, 40) << "the disk is not full";
    EXPECT_THAT(child.waitForLine().value_or(""),
                AllOf(StartsWith("Error while replacing resource: Error Domain=NSCocoaErrorDomain "
                                 "Code=640 "),
                      HasSubstr("No space left on device")));
    EXPECT_EQ(child.waitForLine(), std::to_string((pages - 1) * 4096));
    EXPECT_EQ(child.waitForLine(), "9.0.0-" + std::to_string(pages - 1));
    EXPECT_EQ(child.waitForLine(), "still there");
    EXPECT_EQ(child.waitForLine(), "1") << "nothing stays beside the copy";
}

// Arguments: container, file to give, bundle.
UTILIA_CHILD_ROLE(installWhereNothingCanBeWritten) {
    const test::TestLog log;
    ResourceManager::addResourceFile(self.arguments.at(1), "converter", IndexPath{9, 0, 0, 0}, 1,
                                     "com.korvane.utilia.SampleTool");
    report(self, log, self.arguments.at(0), self.arguments.at(1));
    const auto bundle = platform::Bundle::bundleWithPath(self.arguments.at(2));
    self.say(ResourceManager::getMostActualResourcePath("converter", *bundle));
    return 0;
}

TEST_F(ResourceRoom, AReadOnlyContainerKeepsTheOldCopyAndItCanBeChosen) {
    install("first", IndexPath{8, 0, 0, 0});
    mounts_.makeReadOnly(home_.data().string());
    auto child = test::ChildProcess::role(
        "installWhereNothingCanBeWritten",
        {home_.groupContainer().string(), given("new").string(), files_.path()},
        {.mounts = &mounts_});
    EXPECT_THAT(child.waitForLine().value_or(""),
                AllOf(StartsWith("Error while replacing resource: Error Domain=NSCocoaErrorDomain "
                                 "Code=642 "),
                      HasSubstr("Read-only file system")));
    EXPECT_EQ(child.waitForLine(), "5");
    EXPECT_EQ(child.waitForLine(), "8.0.0-0");
    EXPECT_EQ(child.waitForLine(), "still there");
    EXPECT_EQ(child.waitForLine(), installed().string());
}

TEST_F(ResourceRoom, AFirstInstallationIntoAReadOnlyContainerMakesNothing) {
    fs::create_directories(home_.groupContainer());
    mounts_.makeReadOnly(home_.data().string());
    auto child = test::ChildProcess::role(
        "installWhereNothingCanBeWritten",
        {home_.groupContainer().string(), given("new").string(), files_.path()},
        {.mounts = &mounts_});
    EXPECT_THAT(child.waitForLine().value_or(""),
                StartsWith("Error while creating directory: Error Domain=NSCocoaErrorDomain "
                           "Code=642 "));
    EXPECT_EQ(child.waitForLine(), "0");
    EXPECT_EQ(child.waitForLine(), "0.0.0-0");
    EXPECT_EQ(child.waitForLine(), "still there");
    EXPECT_EQ(child.waitForLine(), internal().string());
}

// A file of somebody else may be moved out of one's own folder, but its mode may not be changed.
TEST_F(ResourceRoom, AFileOfAnotherUserIsPutInPlaceWithoutARecord) {
    ASSERT_EQ(geteuid(), 0u) << "it takes root to make files of two users";
    install("first", IndexPath{8, 0, 0, 0});
    const test::UnprivilegedUser user(home_);
    user.own(home_.data() / "korvane-utilia");
    const auto foreign = given("of root");
    auto child = test::ChildProcess::role(
        "installWhereNothingCanBeWritten",
        {home_.groupContainer().string(), foreign.string(), files_.path()}, {.user = user.id()});
    EXPECT_THAT(child.waitForLine().value_or(""),
                StartsWith("Error while setting attributes: Error Domain=NSCocoaErrorDomain "
                           "Code=513 "));
    EXPECT_EQ(child.waitForLine(), "7") << "the new file is in place";
    EXPECT_EQ(child.waitForLine(), "8.0.0-0") << "the record is as it was, on purpose";
    EXPECT_EQ(child.waitForLine(), "gone");
    EXPECT_EQ(child.waitForLine(), internal().string()) << "which may not be executed";
    EXPECT_EQ(contentOf(installed()), "of root");
}

// The same from a folder that is not one's own, on another file system: what could not be moved is
// not copied either.
TEST_F(ResourceRoom, AFileThatCannotBeRemovedIsNotInstalled) {
    install("first", IndexPath{8, 0, 0, 0});
    const test::TemporaryFolder elsewhere;
    ASSERT_EQ(chmod(elsewhere.path().c_str(), 0755), 0);
    writeFile(elsewhere.path() / "given", "new");
    mounts_.makeReadOnly(elsewhere.path().string());
    auto child = test::ChildProcess::role(
        "installWhereNothingCanBeWritten",
        {home_.groupContainer().string(), (elsewhere.path() / "given").string(), files_.path()},
        {.mounts = &mounts_});
    EXPECT_THAT(child.waitForLine().value_or(""),
                StartsWith("Error while replacing resource: Error Domain=NSCocoaErrorDomain "
                           "Code=642 "));
    EXPECT_EQ(child.waitForLine(), "5");
    EXPECT_EQ(child.waitForLine(), "8.0.0-0");
    EXPECT_EQ(child.waitForLine(), "still there");
}

}  // namespace
}  // namespace utilia
