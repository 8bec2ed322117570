#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "Common/Platform/FileManager.h"
#include "Common/Platform/PropertyListSerialization.h"
#include "Common/Platform/UserDefaults.h"
#include "Tests/Support/FaultInjection.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"

namespace utilia::platform {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kDomain = "com.example.tool";
constexpr std::string_view kGroup = "7QK2M9ZD4R.com.korvane.utilia";

unsigned modeOf(const fs::path& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 07777;
}

ino_t inodeOf(const fs::path& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
    return status.st_ino;
}

class UserDefaultsTest : public testing::Test {
protected:
    fs::path folder() const { return home_.config() / "korvane-utilia"; }
    fs::path file() const { return folder() / (std::string(kDomain) + ".plist"); }

    // What another program writes: the file as a whole, under its name.
    void replaceFile(const Dictionary& content) const {
        const auto bytes = dataFromPropertyList(content, PropertyListFormat::Binary);
        ASSERT_TRUE(FileManager::createDirectoryAtPath(folder().string(), 0700));
        ASSERT_TRUE(FileManager::writeAtomically(file().string(), *bytes));
    }

    const test::TemporaryHome home_{test::folderInMemory()};
    const test::TestLog log_;
    const std::unique_ptr<UserDefaults> defaults_ = UserDefaults::initWithDomain(kDomain);
};

TEST_F(UserDefaultsTest, KeepsADomainInOneBinaryFileThatOnlyItsUserReads) {
    defaults_->setObject("value", "key");
    EXPECT_EQ(defaults_->path(), file().string());
    EXPECT_EQ(modeOf(file()), 0600u);
    EXPECT_EQ(modeOf(folder()), 0700u);
    const auto bytes = FileManager::contentsAtPath(file().string(), 1000);
    ASSERT_TRUE(bytes);
    EXPECT_EQ(std::string(bytes->begin(), bytes->begin() + 8), "bplist00");
    EXPECT_TRUE(*propertyListFromData(*bytes) == Value(Dictionary{{"key", "value"}}));
}

TEST_F(UserDefaultsTest, MakesNothingUntilSomethingIsSet) {
    EXPECT_FALSE(defaults_->objectForKey("key"));
    EXPECT_TRUE(defaults_->dictionaryRepresentation().empty());
    EXPECT_TRUE(defaults_->synchronize());
    EXPECT_FALSE(fs::exists(folder()));
}

TEST_F(UserDefaultsTest, WritesADomainThroughBeforeSetReturns) {
    defaults_->setObject(1, "key");
    EXPECT_TRUE(*propertyListFromData(*FileManager::contentsAtPath(file().string(), 1000)) ==
                Value(Dictionary{{"key", 1}}));
    defaults_->removeObjectForKey("key");
    EXPECT_TRUE(*propertyListFromData(*FileManager::contentsAtPath(file().string(), 1000)) ==
                Value(Dictionary()));
}

TEST_F(UserDefaultsTest, SeesAnotherWritersFileWithTheNextRead) {
    defaults_->setObject(1, "key");
    EXPECT_EQ(defaults_->integerForKey("key"), 1);
    for (int i = 2; i < 50; ++i) {
        replaceFile({{"key", i}});
        EXPECT_EQ(defaults_->integerForKey("key"), i);
    }
    fs::remove(file());
    EXPECT_FALSE(defaults_->objectForKey("key"));
}

TEST_F(UserDefaultsTest, SeesAnEditInPlace) {
    defaults_->setObject(1, "key");
    const auto bytes = dataFromPropertyList(Dictionary{{"key", 2}}, PropertyListFormat::Xml);
    std::ofstream(file(), std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes->data()),
               static_cast<std::streamsize>(bytes->size()));
    EXPECT_EQ(defaults_->integerForKey("key"), 2);
}

TEST_F(UserDefaultsTest, ChangesOnlyItsOwnKeys) {
    replaceFile({{"theirs", "kept"}, {"ours", 1}});
    defaults_->setObject(2, "ours");
    EXPECT_TRUE(defaults_->dictionaryRepresentation() ==
                (Dictionary{{"theirs", "kept"}, {"ours", 2}}));
    EXPECT_EQ(defaults_->dictionaryRepresentation().begin()->first, "theirs")
        << "the order of keys stays";
}

TEST_F(UserDefaultsTest, DoesNotParseAnUnchangedFileAgain) {
    defaults_->setObject("value", "key");
    const test::ArmedFault open({.call = kUtiliaFaultOpen, .error = EIO}, 1,
                                test::FaultRepetition::ForEver);
    const test::ArmedFault stat({.call = kUtiliaFaultStat}, 1000);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(defaults_->stringForKey("key"), "value");
    EXPECT_EQ(open.calls(), 0u);
    EXPECT_EQ(stat.calls(), 100u);
}

// A domain that is too large to be parsed for one key.
class LargeDomain : public UserDefaultsTest {
protected:
    static constexpr const char* kSpoilt = "spoilt text";

    static Dictionary content(int flag) {
        Dictionary texts;
        for (int i = 0; i < 500; ++i)
            texts.set("key " + std::to_string(i), "text " + std::to_string(i));
        texts.set("last", kSpoilt);
        return {{"texts", texts}, {"flag", flag}, {"name", "value"}, {"on", true}, {"off", false}};
    }

    // The file with a NUL in one of its texts, which no reader of the whole accepts.
    void damageOneText() const {
        auto bytes = *FileManager::contentsAtPath(file().string(), kPropertyListMaximumSize);
        const std::string_view text = kSpoilt;
        const auto found = std::search(bytes.begin(), bytes.end(), text.begin(), text.end());
        ASSERT_NE(found, bytes.end());
        *found = 0;
        ASSERT_TRUE(FileManager::writeAtomically(file().string(), bytes));
    }
};

TEST_F(LargeDomain, AnswersAKeyWithoutReadingTheRest) {
    replaceFile(content(7));
    damageOneText();
    EXPECT_EQ(defaults_->integerForKey("flag"), 7);
    EXPECT_EQ(defaults_->stringForKey("name"), "value");
    EXPECT_TRUE(defaults_->boolForKey("on"));
    EXPECT_FALSE(defaults_->objectForKey("absent"));
    EXPECT_TRUE(log_.lines().empty());
    EXPECT_FALSE(defaults_->objectForKey("off")) << "the fifth key is worth a look at everything";
    ASSERT_EQ(log_.lines().size(), 1u);
    EXPECT_NE(log_.lines()[0].find("set aside"), std::string::npos) << log_.lines()[0];
}

TEST_F(LargeDomain, OpensAnUnchangedFileOnce) {
    replaceFile(content(7));
    EXPECT_EQ(defaults_->integerForKey("flag"), 7);
    const test::ArmedFault open({.call = kUtiliaFaultOpen, .error = EIO}, 1,
                                test::FaultRepetition::ForEver);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(defaults_->integerForKey("flag"), 7);
        EXPECT_TRUE(defaults_->boolForKey("on"));
    }
    EXPECT_EQ(open.calls(), 0u);
}

TEST_F(LargeDomain, SeesEachReplacement) {
    for (int i = 0; i < 20; ++i) {
        replaceFile(content(i));
        EXPECT_EQ(defaults_->integerForKey("flag"), i);
        EXPECT_TRUE(defaults_->boolForKey("on"));
    }
    defaults_->setObject(100, "flag");
    EXPECT_EQ(defaults_->integerForKey("flag"), 100);
    EXPECT_EQ(defaults_->dictionaryForKey("texts")->size(), 501u);
    replaceFile({{"flag", 101}});
    EXPECT_EQ(defaults_->integerForKey("flag"), 101);
    fs::remove(file());
    EXPECT_FALSE(defaults_->objectForKey("flag"));
}

TEST_F(LargeDomain, InXmlIsReadAsAWhole) {
    const auto bytes = dataFromPropertyList(content(7), PropertyListFormat::Xml);
    ASSERT_TRUE(FileManager::createDirectoryAtPath(folder().string(), 0700));
    ASSERT_TRUE(FileManager::writeAtomically(file().string(), *bytes));
    EXPECT_EQ(defaults_->integerForKey("flag"), 7);
    EXPECT_FALSE(defaults_->boolForKey("off"));
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(LargeDomain, ThatIsCutShortIsSetAside) {
    replaceFile(content(7));
    fs::resize_file(file(), fs::file_size(file()) - 1);
    EXPECT_FALSE(defaults_->objectForKey("flag"));
    EXPECT_FALSE(fs::exists(file()));
    EXPECT_EQ(log_.lines().size(), 1u);
}

TEST_F(UserDefaultsTest, ConvertsAsNumbersAndTextDo) {
    replaceFile({{"text", "12 apples"},
                 {"yes", "YES"},
                 {"integer", -7},
                 {"real", 2.5},
                 {"true", true},
                 {"array", Array{1}},
                 {"dictionary", Dictionary{{"a", 1}}},
                 {"data", Data{1, 2}},
                 {"large", std::numeric_limits<std::uint64_t>::max()}});
    EXPECT_EQ(defaults_->stringForKey("text"), "12 apples");
    EXPECT_EQ(defaults_->stringForKey("integer"), "-7");
    EXPECT_EQ(defaults_->stringForKey("real"), "2.5");
    EXPECT_EQ(defaults_->stringForKey("true"), "1");
    EXPECT_EQ(defaults_->stringForKey("large"), "18446744073709551615");
    EXPECT_FALSE(defaults_->stringForKey("array"));
    EXPECT_EQ(defaults_->integerForKey("text"), 12);
    EXPECT_EQ(defaults_->integerForKey("real"), 2);
    EXPECT_EQ(defaults_->integerForKey("missing"), 0);
    EXPECT_EQ(defaults_->doubleForKey("real"), 2.5);
    EXPECT_EQ(defaults_->doubleForKey("missing"), 0);
    EXPECT_TRUE(defaults_->boolForKey("yes"));
    EXPECT_TRUE(defaults_->boolForKey("integer"));
    EXPECT_FALSE(defaults_->boolForKey("array"));
    EXPECT_FALSE(defaults_->boolForKey("missing"));
    EXPECT_EQ(defaults_->arrayForKey("array")->size(), 1u);
    EXPECT_FALSE(defaults_->arrayForKey("dictionary"));
    EXPECT_EQ(defaults_->dictionaryForKey("dictionary")->size(), 1u);
    EXPECT_FALSE(defaults_->dictionaryForKey("array"));
    EXPECT_EQ(defaults_->dataForKey("data"), (Data{1, 2}));
    EXPECT_FALSE(defaults_->dataForKey("text"));
}

TEST_F(UserDefaultsTest, RefusesWhatAPropertyListCannotHoldWithOneLine) {
    using namespace std::string_literals;
    defaults_->setObject(1, "key");
    const ino_t inode = inodeOf(file());
    defaults_->setObject("a\0b"s, "key");
    EXPECT_EQ(log_.lines(), std::vector<std::string>{
                                "A value for the preferences " + file().string() +
                                " is refused: property list: text that is not UTF-8 or holds NUL"});
    defaults_->setObject(Date{std::nan("")}, "key");
    defaults_->setObject(2, "bad\xFFkey");
    EXPECT_EQ(log_.lines().size(), 3u);
    EXPECT_TRUE(defaults_->dictionaryRepresentation() == (Dictionary{{"key", 1}}));
    EXPECT_EQ(inodeOf(file()), inode) << "nothing was written";
}

TEST_F(UserDefaultsTest, AcceptsOnlyNamesThatAreFileNames) {
    for (const std::string& name :
         {std::string(), std::string("."), std::string(".."), std::string("a/b"),
          std::string("/etc/passwd"), std::string("a\0b", 3), std::string("\xFF"),
          std::string(201, 'a')}) {
        EXPECT_FALSE(UserDefaults::initWithDomain(name)) << name;
        EXPECT_FALSE(UserDefaults::initWithSuiteName(name)) << name;
    }
    EXPECT_FALSE(UserDefaults::initWithSuiteName("NSGlobalDomain"));
    const auto longest = UserDefaults::initWithDomain(std::string(200, 'a'));
    ASSERT_TRUE(longest);
    longest->setObject(1, "key");
    EXPECT_TRUE(longest->synchronize());
}

TEST_F(UserDefaultsTest, WithoutABundleNothingIsStored) {
    UserDefaults& own = UserDefaults::standardUserDefaults();
    EXPECT_EQ(own.path(), "");
    own.setObject(1, "key");
    EXPECT_FALSE(own.synchronize());
    EXPECT_EQ(own.integerForKey("key"), 1) << "what was set here is seen here";
    EXPECT_FALSE(fs::exists(folder()));
    own.removeObjectForKey("key");
}

TEST_F(UserDefaultsTest, KeepsASuiteInsideTheGroupsContainer) {
    const auto suite = UserDefaults::initWithSuiteName(kGroup);
    ASSERT_TRUE(suite);
    const fs::path preferences = home_.groupContainer() / "Library" / "Preferences";
    EXPECT_EQ(suite->path(), (preferences / (std::string(kGroup) + ".plist")).string());
    suite->setObject(1, "key");
    EXPECT_TRUE(suite->synchronize());
    for (const fs::path& made : {preferences, preferences.parent_path(), home_.groupContainer()})
        EXPECT_EQ(modeOf(made), 0700u);
    EXPECT_EQ(modeOf(suite->path()), 0600u);
}

TEST_F(UserDefaultsTest, GathersTheSetsOfASuiteIntoOneReplacement) {
    const auto reader = UserDefaults::initWithSuiteName(kGroup);
    const auto suite = UserDefaults::initWithSuiteName(kGroup);
    suite->setObject(0, "first");
    EXPECT_TRUE(suite->synchronize());
    const ino_t inode = inodeOf(suite->path());
    suite->setObject(1, "first");
    suite->setObject(2, "second");
    suite->setObject(3, "second");
    suite->removeObjectForKey("first");
    EXPECT_EQ(inodeOf(suite->path()), inode);
    EXPECT_EQ(reader->integerForKey("second"), 0);
    EXPECT_FALSE(suite->objectForKey("first")) << "its own sets are seen at once";
    EXPECT_TRUE(suite->dictionaryRepresentation() == (Dictionary{{"second", 3}}));
    EXPECT_TRUE(suite->synchronize());
    EXPECT_TRUE(reader->dictionaryRepresentation() == (Dictionary{{"second", 3}}));
    const ino_t written = inodeOf(suite->path());
    EXPECT_TRUE(suite->synchronize());
    EXPECT_EQ(inodeOf(suite->path()), written) << "nothing gathered, nothing written";
}

TEST_F(UserDefaultsTest, ASuiteWritesAtItsEndWhatIsStillGathered) {
    UserDefaults::initWithSuiteName(kGroup)->setObject(1, "key");
    EXPECT_EQ(UserDefaults::initWithSuiteName(kGroup)->integerForKey("key"), 1);
}

TEST_F(UserDefaultsTest, MakesAMissingFolderAgain) {
    defaults_->setObject(1, "key");
    fs::remove_all(folder());
    EXPECT_FALSE(defaults_->objectForKey("key"));
    defaults_->setObject(2, "key");
    EXPECT_EQ(defaults_->integerForKey("key"), 2);
    EXPECT_TRUE(log_.lines().empty());
}

TEST_F(UserDefaultsTest, KeepsTheReplacedFileAsBackupOnceADay) {
    const fs::path backup = file().string() + ".bak";
    defaults_->setObject(1, "key");
    EXPECT_FALSE(fs::exists(backup));
    defaults_->setObject(2, "key");
    ASSERT_TRUE(fs::exists(backup));
    const ino_t first = inodeOf(backup);
    for (int i = 3; i < 10; ++i) defaults_->setObject(i, "key");
    EXPECT_EQ(inodeOf(backup), first);
    EXPECT_TRUE(*propertyListFromData(*FileManager::contentsAtPath(backup.string(), 1000)) ==
                Value(Dictionary{{"key", 1}}));
}

TEST_F(UserDefaultsTest, RenewsABackupThatIsOlderThanADay) {
    const fs::path backup = file().string() + ".bak";
    replaceFile({{"key", 1}});
    std::ofstream(backup) << "yesterday's";
    fs::last_write_time(backup, fs::file_time_type::clock::now() - std::chrono::hours(25));
    defaults_->setObject(2, "key");
    EXPECT_TRUE(*propertyListFromData(*FileManager::contentsAtPath(backup.string(), 1000)) ==
                Value(Dictionary{{"key", 1}}));
}

}  // namespace
}  // namespace utilia::platform
