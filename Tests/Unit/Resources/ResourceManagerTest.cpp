#include "Common/UtiliaCommon/Resources/ResourceManager.h"

#include <algorithm>

#include <unistd.h>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Unit/Resources/ResourceFixture.h"

namespace utilia {
namespace {

namespace fs = std::filesystem;
using test::contentOf;
using test::modeOf;
using test::writeFile;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

const IndexPath kSame{5, 1, 2, 3456};
const IndexPath kNewer{5, 1, 2, 3457};

class ResourceChoice : public test::ResourceFixture {};

TEST_F(ResourceChoice, IsTheInternalCopyWithoutARecord) {
    EXPECT_EQ(chosenPath(), internal().string());
    EXPECT_FALSE(fs::exists(internal())) << "which is not looked for";
    EXPECT_FALSE(fs::exists(folder())) << "choosing makes nothing";
}

TEST_F(ResourceChoice, IsTheSharedCopyWhenItIsNewer) {
    install("new", kNewer);
    EXPECT_EQ(chosenPath(), installed().string());
}

TEST_F(ResourceChoice, IsTheInternalCopyWhenVersionsAreEqualBecauseItCannotGoAway) {
    install("same", kSame);
    EXPECT_EQ(chosenPath(), internal().string());
}

TEST_F(ResourceChoice, OrdersVersionsByTheirComponents) {
    install("copy", {5, 1, 10, 1});
    EXPECT_EQ(chosenPath(), installed().string());
    install("copy", {5, 1, 2, 99});
    EXPECT_EQ(chosenPath(), internal().string());
    install("copy", {5, 0, 99, 99999});
    EXPECT_EQ(chosenPath(), internal().string());
    install("copy", {6, 0, 0, 0});
    EXPECT_EQ(chosenPath(), installed().string());
}

TEST_F(ResourceChoice, IsTheInternalCopyWhenTheSharedOneCannotBeExecuted) {
    install("new", kNewer);
    ASSERT_EQ(chmod(installed().c_str(), 0644), 0);
    EXPECT_EQ(chosenPath(), internal().string());
    ASSERT_EQ(chmod(installed().c_str(), 0755), 0);
    EXPECT_EQ(chosenPath(), installed().string());
    fs::remove(installed());
    EXPECT_EQ(chosenPath(), internal().string());
}

// Whatever its type: pictures and texts are shared by those who make them executable.
TEST_F(ResourceChoice, LooksForTheExecutableBitOfAllBecauseARecordTellsNoKind) {
    install("picture", kNewer, 0);
    EXPECT_EQ(chosenPath(), internal().string());
    ResourceManager::addResourceFile(given("picture", 0755).string(), kName, kNewer, 0, kBundleId);
    EXPECT_EQ(chosenPath(), installed().string());
}

TEST_F(ResourceChoice, IsTheInternalCopyWhenTheRecordMakesNoSense) {
    install("new", kNewer);
    record_.updateValue(Value("9.9.9"), kResourceVersionKey);
    EXPECT_EQ(chosenPath(), internal().string()) << "three numbers are no version";
    record_.updateValue(std::nullopt, kResourceVersionKey);
    EXPECT_EQ(chosenPath(), internal().string());
    record_.setVersion(kNewer);
    record_.setPath(std::nullopt);
    EXPECT_EQ(chosenPath(), internal().string());
    record_.setPath("");
    EXPECT_EQ(chosenPath(), internal().string());
}

TEST_F(ResourceChoice, TakesThePathAsTheRecordHasIt) {
    const fs::path elsewhere = home_.path() / "elsewhere";
    writeFile(elsewhere, "new", 0700);
    record_.setPath(elsewhere.string());
    record_.setVersion(kNewer);
    EXPECT_EQ(chosenPath(), elsewhere.string());
}

TEST_F(ResourceChoice, TakesAVersionOfThreeComponentsForLowerThanOneOfFour) {
    const test::TestBundle old(home_, {.name = "Old",
                                       .info = Dictionary{{"CFBundleShortVersionString", "1.2"},
                                                          {"CFBundleVersion", "7"}}});
    const auto bundle = platform::Bundle::bundleWithPath(old.path());
    install("copy", {1, 2, 7, 0});
    EXPECT_EQ(ResourceManager::getMostActualResourcePath(kName, *bundle), installed().string());
}

TEST_F(ResourceChoice, HasNoRecordForABundleThatDoesNotSayWhoItIs) {
    SharedResource(kName, "").setPath("/bin/sh");
    SharedResource(kName, "").setVersion(kNewer);
    const test::TestBundle nameless(home_, {.name = "Nameless", .bundleIdentifier = ""});
    const auto bundle = platform::Bundle::bundleWithPath(nameless.path());
    EXPECT_EQ(ResourceManager::getMostActualResourcePath(kName, *bundle),
              nameless.path() + "/Contents/Resources/converter");
}

TEST_F(ResourceChoice, IsLoggedOnlyWhileExtendedLoggingIsOn) {
    chosenPath();
    EXPECT_THAT(log_.lines(), ElementsAre());
    setExtendedLoggingProbe([] { return true; });
    chosenPath();
    install("new", kNewer);
    chosenPath();
    ResourceManager::getMostActualResourceVersion(kName, kBundleId);
    EXPECT_THAT(
        log_.lines(),
        ElementsAre(MatchesRegex("Using internal resource converter with version <NSIndexPath: "
                                 "0x[0-9a-f]+> \\{length = 4, path = 5 - 1 - 2 - 3456\\}"),
                    MatchesRegex("Using shared resource converter with version <NSIndexPath: "
                                 "0x[0-9a-f]+> \\{length = 4, path = 5 - 1 - 2 - 3457\\}")));
}

TEST_F(ResourceChoice, HasTheSharedVersionForAnUnknownBundleBecauseThatCountsAsZero) {
    EXPECT_EQ(ResourceManager::getMostActualResourceVersion(kName, kBundleId), (IndexPath{0}));
    install("copy", {0, 0, 0, 0});
    EXPECT_EQ(ResourceManager::getMostActualResourceVersion(kName, kBundleId),
              (IndexPath{0, 0, 0, 0}))
        << "four zeros come after a single one";
    install("copy", {0, 0, 1, 0});
    EXPECT_EQ(ResourceManager::getMostActualResourceVersion(kName, kBundleId),
              (IndexPath{0, 0, 1, 0}));
    ASSERT_EQ(chmod(installed().c_str(), 0600), 0);
    EXPECT_EQ(ResourceManager::getMostActualResourceVersion(kName, kBundleId), (IndexPath{0}));
}

UTILIA_CHILD_ROLE(sayNewestVersion) {
    const IndexPath version =
        ResourceManager::getMostActualResourceVersion("converter", "com.korvane.utilia.SampleTool");
    const std::string text = version.description();
    self.say(text.substr(text.find('{')));
    return 0;
}

TEST_F(ResourceChoice, HasTheVersionOfTheMainBundleUnlessTheSharedOneIsNewer) {
    EXPECT_EQ(files_.role("sayNewestVersion").waitForLine(),
              "{length = 4, path = 5 - 1 - 2 - 3456}");
    install("copy", kSame);
    EXPECT_EQ(files_.role("sayNewestVersion").waitForLine(),
              "{length = 4, path = 5 - 1 - 2 - 3456}");
    install("copy", kNewer);
    EXPECT_EQ(files_.role("sayNewestVersion").waitForLine(),
              "{length = 4, path = 5 - 1 - 2 - 3457}");
}

TEST_F(ResourceChoice, KnowsTheFrameworksOwnBundle) {
    const auto* const framework = platform::Bundle::frameworkBundle();
    ASSERT_NE(framework, nullptr);
    const std::string identifier = framework->bundleIdentifier().value();
    EXPECT_EQ(platform::Bundle::bundleWithIdentifier(identifier), framework);
    EXPECT_EQ(platform::Bundle::bundleWithIdentifier(kBundleId), nullptr);
    EXPECT_EQ(platform::Bundle::bundleWithIdentifier(""), nullptr);
    EXPECT_GT(ResourceManager::getMostActualResourceVersion(kName, identifier).length(), 1u);
}

class ResourceInstallation : public test::ResourceFixture {
protected:
    // What lies in the container's folder of resources, whatever its name.
    std::vector<std::string> everything() const {
        std::vector<std::string> found;
        if (fs::exists(folder())) {
            for (const auto& entry : fs::recursive_directory_iterator(folder()))
                found.push_back(entry.path().lexically_relative(folder()).string());
        }
        std::sort(found.begin(), found.end());
        return found;
    }
    void expectNothingInstalled() const {
        EXPECT_EQ(record_.path(), std::nullopt);
        EXPECT_EQ(record_.version(), std::nullopt);
        EXPECT_FALSE(fs::exists(installed()));
        EXPECT_TRUE(fs::exists(home_.path() / "given")) << "the given file stays";
    }
    void expectRefused(const std::string& name, const std::string& bundleId) {
        SCOPED_TRACE(testing::PrintToString(name) + " of " + testing::PrintToString(bundleId));
        log_.clear();
        ResourceManager::addResourceFile(given("copy").string(), name, kNewer, 1, bundleId);
        EXPECT_THAT(log_.lines(), ElementsAre(StartsWith("The resource is not installed: ")));
        EXPECT_THAT(everything(), ElementsAre());
        EXPECT_EQ(contentOf(home_.path() / "given"), "copy");
        EXPECT_EQ(modeOf(home_.path() / "given"), 0644u);
        EXPECT_EQ(SharedResource(name, bundleId).path(), std::nullopt);
    }
};

TEST_F(ResourceInstallation, MovesTheFileAndRecordsIt) {
    install("first", kNewer);
    EXPECT_EQ(contentOf(installed()), "first");
    EXPECT_FALSE(fs::exists(home_.path() / "given"));
    EXPECT_EQ(record_.path(), installed().string());
    EXPECT_EQ(record_.getValueForKey("Version"), Value("5.1.2-3457"));
    EXPECT_THAT(everything(), ElementsAre(kBundleId, std::string(kBundleId) + "/converter"));
    EXPECT_THAT(log_.lines(), ElementsAre());
}

TEST_F(ResourceInstallation, ReplacesTheOldCopyAndLeavesNoBackup) {
    install("first", kNewer);
    install("second", {6, 0, 0, 1});
    EXPECT_EQ(contentOf(installed()), "second");
    EXPECT_EQ(record_.version(), (IndexPath{6, 0, 0, 1}));
    EXPECT_THAT(everything(), ElementsAre(kBundleId, std::string(kBundleId) + "/converter"));
}

TEST_F(ResourceInstallation, ComparesNoVersionsBecauseTheCallerHasDecided) {
    install("newer", kNewer);
    install("older", {1, 0, 0, 0});
    EXPECT_EQ(contentOf(installed()), "older");
    EXPECT_EQ(record_.version(), (IndexPath{1, 0, 0, 0}));
}

TEST_F(ResourceInstallation, StoresNoVersionAsZeros) {
    ResourceManager::addResourceFile(given("copy").string(), kName, std::nullopt, 1, kBundleId);
    EXPECT_EQ(record_.getValueForKey("Version"), Value("0.0.0-0"));
}

TEST_F(ResourceInstallation, MakesProgramsExecutableAndLeavesOtherFilesAsTheyAre) {
    for (const mode_t mode : {0600u, 0644u, 0755u, 0400u, 0777u}) {
        ResourceManager::addResourceFile(given("program", mode).string(), kName, kNewer, 1,
                                         kBundleId);
        EXPECT_EQ(modeOf(installed()), 0755u);
        for (const std::int64_t type : {0, 2, -1}) {
            ResourceManager::addResourceFile(given("other", mode).string(), kName, kNewer, type,
                                             kBundleId);
            EXPECT_EQ(modeOf(installed()), mode);
        }
    }
    EXPECT_THAT(log_.lines(), ElementsAre());
}

TEST_F(ResourceInstallation, KeepsTheFileItIsGivenToTheByte) {
    std::string content;
    for (int i = 0; i < 300'000; ++i) content += static_cast<char>(i * 31 >> 3);
    install(content, kNewer);
    EXPECT_TRUE(contentOf(installed()) == content);
    install("", kNewer);
    EXPECT_EQ(contentOf(installed()), "");
}

TEST_F(ResourceInstallation, KeepsResourcesOfOthers) {
    install("mine", kNewer);
    ResourceManager::addResourceFile(given("sibling").string(), "viewer", kSame, 0, kBundleId);
    ResourceManager::addResourceFile(given("namesake").string(), kName, kSame, 0, "other.bundle");
    EXPECT_EQ(contentOf(installed()), "mine");
    EXPECT_EQ(contentOf(folder() / kBundleId / "viewer"), "sibling");
    EXPECT_EQ(contentOf(folder() / "other.bundle" / kName), "namesake");
    EXPECT_EQ(record_.version(), kNewer);
}

TEST_F(ResourceInstallation, RefusesNamesThatCouldLeaveTheContainer) {
    const std::string nul("a\0b", 3);
    for (const std::string& one : {std::string(), std::string("."), std::string(".."), nul,
                                   std::string("\xFF"), std::string(".utilia-12-3")}) {
        expectRefused(one, kBundleId);
        expectRefused(kName, one);
        // Of a name with folders.
        expectRefused(one + "/name", kBundleId);
        expectRefused("inner/" + one, kBundleId);
        expectRefused("inner/" + one + "/name", kBundleId);
    }
    for (const char* one :
         {"/", "/etc", "../../escaped", "inner/../../../escaped", "name/", "//"}) {
        expectRefused(one, kBundleId);
        expectRefused(kName, one);
    }
    expectRefused(kName, "inner/name");
    EXPECT_FALSE(fs::exists(home_.groupContainer() / "escaped"));
}

TEST_F(ResourceInstallation, MakesTheFoldersOfAName) {
    const std::string name = test::kInnerResourceName;
    const SharedResource record(name, kBundleId);
    EXPECT_EQ(ResourceManager::getMostActualResourcePath(name, *bundle_),
              bundle_->resourcePath() + "/" + name);
    for (const auto& [content, version] : {std::pair("first", kNewer), {"second", {6, 0, 0, 1}}}) {
        ResourceManager::addResourceFile(given(content).string(), name, version, 1, kBundleId);
        EXPECT_EQ(contentOf(folder() / kBundleId / name), content);
        EXPECT_EQ(record.path(), (folder() / kBundleId / name).string());
        EXPECT_EQ(record.version(), version);
    }
    const std::string own = kBundleId;
    EXPECT_THAT(everything(), ElementsAre(own, own + "/helpers", own + "/helpers/linux",
                                          own + "/helpers/linux/converter"));
    EXPECT_EQ(modeOf(folder() / kBundleId / "helpers/linux"), modeOf(folder() / kBundleId));
    EXPECT_EQ(ResourceManager::getMostActualResourcePath(name, *bundle_), record.path());
    EXPECT_EQ(record_.path(), std::nullopt) << "which is another resource";
    EXPECT_THAT(log_.lines(), ElementsAre());
}

TEST_F(ResourceInstallation, KeepsWhatIsInTheWayOfAFolderOrAFileOfAName) {
    install("a file", kNewer);
    const std::string below = std::string(kName) + "/below";
    ResourceManager::addResourceFile(given("copy").string(), below, kNewer, 1, kBundleId);
    EXPECT_THAT(log_.lines(), ElementsAre(StartsWith("Error while creating directory: ")));
    EXPECT_EQ(contentOf(installed()), "a file");
    EXPECT_EQ(SharedResource(below, kBundleId).path(), std::nullopt);

    ResourceManager::addResourceFile(given("inner").string(), "folder/inner", kNewer, 1, kBundleId);
    log_.clear();
    ResourceManager::addResourceFile(given("copy").string(), "folder", kNewer, 1, kBundleId);
    EXPECT_THAT(log_.lines(), ElementsAre(StartsWith("Error while replacing resource: ")));
    EXPECT_EQ(contentOf(folder() / kBundleId / "folder/inner"), "inner");
    EXPECT_EQ(SharedResource("folder", kBundleId).path(), std::nullopt);
    EXPECT_EQ(contentOf(home_.path() / "given"), "copy");
}

TEST_F(ResourceInstallation, FollowsNoFolderOfANameThatIsALink) {
    const fs::path outside = home_.path() / "outside";
    fs::create_directories(outside / "linux");
    const fs::path own = folder() / kBundleId;
    fs::create_directories(own / "inside/linux");
    fs::create_directories(own / "helpers");
    const std::string name = test::kInnerResourceName;
    const auto expectRefusedBehind = [&](const fs::path& link, const fs::path& target) {
        SCOPED_TRACE(link.string() + " to " + target.string());
        fs::remove_all(link);
        fs::create_directory_symlink(target, link);
        log_.clear();
        ResourceManager::addResourceFile(given("copy").string(), name, kNewer, 1, kBundleId);
        EXPECT_THAT(log_.lines(), ElementsAre(StartsWith("Error while creating directory: ")));
        EXPECT_EQ(SharedResource(name, kBundleId).path(), std::nullopt);
        EXPECT_TRUE(fs::is_empty(outside / "linux"));
        EXPECT_TRUE(fs::is_empty(own / "inside/linux"));
        EXPECT_EQ(contentOf(home_.path() / "given"), "copy");
    };
    expectRefusedBehind(own / "helpers/linux", outside / "linux");
    expectRefusedBehind(own / "helpers", outside);
    expectRefusedBehind(own / "helpers", "inside");
    expectRefusedBehind(own / "helpers", "nowhere");
}

TEST_F(ResourceInstallation, TakesNamesThatOnlyLookDangerous) {
    for (const std::string name : {"..name", "...", "-rf", "a b", "%@", "\u00E9", "$(x)", "a\nb"}) {
        ResourceManager::addResourceFile(given("copy").string(), name, kNewer, 1, kBundleId);
        EXPECT_EQ(contentOf(folder() / kBundleId / name), "copy") << name;
        EXPECT_EQ(SharedResource(name, kBundleId).version(), kNewer);
    }
    EXPECT_THAT(log_.lines(), ElementsAre());
}

TEST_F(ResourceInstallation, StopsWhereTheFolderCannotBeMade) {
    fs::create_directories(home_.groupContainer());
    writeFile(folder(), "in the way");
    install("copy", kNewer);
    EXPECT_THAT(log_.lines(), ElementsAre(AllOf(StartsWith("Error while creating directory: Error "
                                                           "Domain=NSCocoaErrorDomain Code=516 "),
                                                HasSubstr(folder().string()))));
    EXPECT_EQ(contentOf(folder()), "in the way");
    fs::remove(folder());
    expectNothingInstalled();
}

TEST_F(ResourceInstallation, StopsWithoutAGroupContainer) {
    fs::create_directories(home_.groupContainer().parent_path());
    writeFile(home_.groupContainer(), "in the way");
    install("copy", kNewer);
    EXPECT_EQ(log_.count("Error while creating directory: Error Domain=UtiliaErrorDomain Code=4 "
                         "\"there is no group container\""),
              1u);
    EXPECT_EQ(contentOf(home_.path() / "given"), "copy");
    EXPECT_EQ(chosenPath(), internal().string());
    fs::remove(home_.groupContainer());
    expectNothingInstalled();
}

TEST_F(ResourceInstallation, StopsWhereTheNameIsTooLongForTheFileSystem) {
    install("copy", kNewer);
    log_.clear();
    ResourceManager::addResourceFile(given("copy").string(), std::string(256, 'n'), kNewer, 1,
                                     kBundleId);
    EXPECT_THAT(log_.lines(), ElementsAre(StartsWith("Error while replacing resource: Error "
                                                     "Domain=NSCocoaErrorDomain Code=514 ")));
    log_.clear();
    ResourceManager::addResourceFile(given("copy").string(), kName, kNewer, 1,
                                     std::string(256, 'i'));
    EXPECT_THAT(log_.lines(), ElementsAre(StartsWith("Error while creating directory: Error "
                                                     "Domain=NSCocoaErrorDomain Code=514 ")));
}

TEST_F(ResourceInstallation, StopsWhereThereIsNoFile) {
    const std::string missing = (home_.path() / "missing").string();
    ResourceManager::addResourceFile(missing, kName, kNewer, 1, kBundleId);
    EXPECT_THAT(log_.lines(), ElementsAre(AllOf(StartsWith("Error while replacing resource: Error "
                                                           "Domain=NSCocoaErrorDomain Code=4 "),
                                                HasSubstr(missing))));
    EXPECT_EQ(record_.path(), std::nullopt);
    EXPECT_EQ(record_.version(), std::nullopt);
}

TEST_F(ResourceInstallation, KeepsTheOldCopyWhenTheNewOneIsNoFile) {
    install("old", kNewer);
    fs::create_directory(home_.path() / "folder");
    fs::create_symlink(given("behind a link"), home_.path() / "link");
    ASSERT_EQ(mkfifo((home_.path() / "pipe").c_str(), 0600), 0);
    for (const char* name : {"folder", "link", "pipe", "missing"}) {
        log_.clear();
        ResourceManager::addResourceFile((home_.path() / name).string(), kName,
                                         IndexPath{9, 0, 0, 0}, 1, kBundleId);
        EXPECT_THAT(log_.lines(), ElementsAre(StartsWith("Error while replacing resource: ")))
            << name;
        EXPECT_EQ(contentOf(installed()), "old");
        EXPECT_EQ(record_.version(), kNewer);
    }
    EXPECT_TRUE(fs::is_symlink(home_.path() / "link"));
}

TEST_F(ResourceInstallation, ReplacesALinkAndNotWhatItLeadsTo) {
    const fs::path canary = home_.path() / "canary";
    writeFile(canary, "alive", 0600);
    fs::create_directories(installed().parent_path());
    fs::create_symlink(canary, installed());
    install("copy", kNewer);
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(installed())));
    EXPECT_EQ(contentOf(installed()), "copy");
    EXPECT_EQ(contentOf(canary), "alive");
    EXPECT_EQ(modeOf(canary), 0600u);
}

TEST_F(ResourceInstallation, FollowsNoFolderOutOfTheContainer) {
    const fs::path outside = home_.path() / "outside";
    fs::create_directory(outside);
    fs::create_directories(folder());
    fs::create_symlink(outside, folder() / kBundleId);
    install("copy", kNewer);
    EXPECT_THAT(log_.lines(), ElementsAre(StartsWith("Error while creating directory: ")));
    EXPECT_TRUE(fs::is_empty(outside));
    fs::remove_all(folder());
    fs::create_symlink(outside, folder());
    log_.clear();
    install("copy", kNewer);
    EXPECT_THAT(log_.lines(), ElementsAre(StartsWith("Error while creating directory: ")));
    EXPECT_TRUE(fs::is_empty(outside));
    fs::remove(folder());
    expectNothingInstalled();
}

TEST_F(ResourceInstallation, KeepsAFolderThatIsInThePlaceOfTheCopy) {
    fs::create_directories(installed() / "inner");
    install("copy", kNewer);
    EXPECT_THAT(log_.lines(), ElementsAre(StartsWith("Error while replacing resource: ")));
    EXPECT_TRUE(fs::exists(installed() / "inner"));
    EXPECT_EQ(record_.path(), std::nullopt);
    EXPECT_EQ(modeOf(home_.path() / "given"), 0644u) << "its mode is given back";
}

TEST_F(ResourceInstallation, LeavesAnInstalledFileThatIsInstalledAgain) {
    install("copy", kNewer);
    ResourceManager::addResourceFile(installed().string(), kName, IndexPath{6, 0, 0, 0}, 1,
                                     kBundleId);
    EXPECT_EQ(contentOf(installed()), "copy");
    EXPECT_EQ(record_.version(), (IndexPath{6, 0, 0, 0}));
    ResourceManager::addResourceFile(installed().parent_path().string() + "/./converter", kName,
                                     IndexPath{6, 0, 0, 1}, 1, kBundleId);
    EXPECT_EQ(contentOf(installed()), "copy");
}

TEST_F(ResourceInstallation, RemovesTheGivenNameOfAFileThatIsInPlaceAlready) {
    install("copy", kNewer);
    fs::create_hard_link(installed(), home_.path() / "second name");
    ResourceManager::addResourceFile((home_.path() / "second name").string(), kName, kNewer, 1,
                                     kBundleId);
    EXPECT_EQ(contentOf(installed()), "copy");
    EXPECT_FALSE(fs::exists(home_.path() / "second name"));
    EXPECT_THAT(log_.lines(), ElementsAre());
}

TEST_F(ResourceInstallation, AnswersWhyNotToWhoeverWantsToKnow) {
    EXPECT_TRUE(
        ResourceManager::tryToAddResourceFile(given("copy").string(), kName, kNewer, 1, kBundleId));
    const auto refused =
        ResourceManager::tryToAddResourceFile(given("copy").string(), "..", kNewer, 1, kBundleId);
    ASSERT_FALSE(refused);
    EXPECT_TRUE(refused.error().is(UtiliaErrorCode::Refused));
    EXPECT_THAT(log_.lines(), ElementsAre());
}

}  // namespace
}  // namespace utilia
