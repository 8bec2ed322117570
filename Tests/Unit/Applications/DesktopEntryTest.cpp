#include "Common/Platform/Linux/DesktopEntry.h"

#include <cstdlib>
#include <filesystem>

#include <sys/stat.h>

#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Unit/Applications/TestFiles.h"

namespace utilia::platform {
namespace {

using test::TemporaryHome;
using test::TestBundle;
using test::writeFile;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace fs = std::filesystem;

constexpr const char* kIdentifier = "com.korvane.utilia.SampleTool";
constexpr const char* kFile = "com.korvane.utilia.SampleTool.desktop";

class DesktopEntryTest : public testing::Test {
protected:
    Result<DesktopEntry> parse(const std::string& content) {
        const fs::path file = home_.path() / "entry.desktop";
        writeFile(file, content);
        return DesktopEntry::read(file);
    }
    Result<DesktopEntry> parseExec(const std::string& exec) {
        return parse("[Desktop Entry]\nType=Application\nName=Sample\nExec=" + exec + "\n");
    }

    TemporaryHome home_;
    TestBundle bundle_{home_};
    std::string quoted_ = "\"" + bundle_.program() + "\"";
    std::string start_ = "[Desktop Entry]\nType=Application\nName=Sample\nExec=" + quoted_ + "\n";
};

TEST_F(DesktopEntryTest, NamesProgramAndBundle) {
    const auto entry = parseExec(quoted_);
    ASSERT_TRUE(entry) << entry.error().description;
    EXPECT_EQ(entry->program, bundle_.program());
    EXPECT_EQ(entry->bundlePath, bundle_.path());
    EXPECT_THAT(entry->arguments, IsEmpty());
}

TEST_F(DesktopEntryTest, ArgumentsAreSplitUnquotedAndFreedOfFieldCodes) {
    const struct {
        const char* written;
        std::vector<std::string> arguments;
    } table[] = {
        {"--show-ui", {"--show-ui"}},
        {"%U", {}},
        {"%f %F %u %U %i %c %k", {}},
        {"--open %f --quiet", {"--open", "--quiet"}},
        {"--file=%f", {"--file="}},
        {"100%%", {"100%"}},
        {"%%f", {"%f"}},
        {"\"two words\" ''", {"two words", ""}},
        {"\"a \\\\\"quoted\\\\\" word\"", {"a \"quoted\" word"}},
        {"\"\\\\$HOME \\\\`id\\\\`\"", {"$HOME `id`"}},
        {"ünïcode", {"ünïcode"}},
    };
    for (const auto& row : table) {
        const auto entry = parseExec(quoted_ + " " + row.written);
        ASSERT_TRUE(entry) << row.written << ": " << entry.error().description;
        EXPECT_EQ(entry->arguments, row.arguments) << row.written;
    }
}

TEST_F(DesktopEntryTest, NothingInExecIsRunOrExpanded) {
    const fs::path canary = home_.path() / "canary";
    const auto entry =
        parseExec(quoted_ + " $(touch " + canary.string() + ") ; > " + canary.string());
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->arguments.front(), "$(touch");
    EXPECT_FALSE(fs::exists(canary));
}

TEST_F(DesktopEntryTest, OtherGroupsCommentsAndKeysDoNotMatter) {
    EXPECT_TRUE(parse("# comment\n\n" + start_ +
                      "Name[de]=Muster\nX-Korvane-Key=1\nNoDisplay=true\n"
                      "[Desktop Action new]\nExec=/bin/false\n"));
    EXPECT_TRUE(parse(start_ + "Hidden=false\n"));
    EXPECT_TRUE(parse(start_ + "TryExec=" + bundle_.program() + "\n"));
}

TEST_F(DesktopEntryTest, TheProgramIsLookedUpInThePathAndThroughLinks) {
    const fs::path bin = home_.path() / "bin";
    fs::create_directory(bin);
    fs::create_symlink(bundle_.program(), bin / "sample-tool");
    const std::string before = std::getenv("PATH");
    setenv("PATH", (bin.string() + ":" + before).c_str(), 1);
    const auto entry = parseExec("sample-tool --flag");
    setenv("PATH", before.c_str(), 1);
    ASSERT_TRUE(entry) << entry.error().description;
    EXPECT_EQ(entry->program, bundle_.program());
    EXPECT_EQ(entry->bundlePath, bundle_.path());
    EXPECT_THAT(entry->arguments, ElementsAre("--flag"));
}

TEST_F(DesktopEntryTest, FilesThatAreNoEntryOfAnApplicationAreRefused) {
    const std::string rest = "Name=Sample\nExec=" + quoted_ + "\n";
    const struct {
        const char* what;
        std::string content;
    } table[] = {
        {"empty", ""},
        {"no group", rest},
        {"another group", "[Other]\nType=Application\n" + rest},
        {"no type", "[Desktop Entry]\n" + rest},
        {"a link", "[Desktop Entry]\nType=Link\n" + rest},
        {"no Exec", "[Desktop Entry]\nType=Application\nName=Sample\n"},
        {"empty Exec", "[Desktop Entry]\nType=Application\nExec=\n"},
        {"only a field code", "[Desktop Entry]\nType=Application\nExec=%U\n"},
        {"open quote", "[Desktop Entry]\nType=Application\nExec=" + quoted_ + " \"open\n"},
        {"unknown field code", "[Desktop Entry]\nType=Application\nExec=" + quoted_ + " %z\n"},
        {"percent at the end", "[Desktop Entry]\nType=Application\nExec=" + quoted_ + " 100%\n"},
        {"bytes", std::string("\x7f"
                              "ELF\0\0\xff",
                              7)},
        {"not UTF-8", "[Desktop Entry]\nType=Application\nExec=/\xff\xfe\n"},
        {"too large", start_ + std::string(300 * 1024, '#')},
    };
    for (const auto& row : table) {
        const auto entry = parse(row.content);
        ASSERT_FALSE(entry) << row.what;
        EXPECT_FALSE(entry.error().is(UtiliaErrorCode::NotFound)) << row.what;
        EXPECT_THAT(entry.error().description, HasSubstr("entry.desktop")) << row.what;
    }
}

TEST_F(DesktopEntryTest, ProgramsThatAreNotThereMeanNotInstalled) {
    const fs::path loose = home_.path() / "loose";
    test::placeTestProgram(loose);
    const fs::path data = fs::path(bundle_.path()) / "Contents/Linux/data";
    writeFile(data, "");
    chmod(data.c_str(), 0644);
    const struct {
        const char* what;
        std::string content;
    } table[] = {
        {"hidden", start_ + "Hidden=true\n"},
        {"TryExec missing", start_ + "TryExec=/nonexistent/program\n"},
        {"missing",
         "[Desktop Entry]\nType=Application\nExec=/nonexistent/X.app/Contents/Linux/x\n"},
        {"not in the path", "[Desktop Entry]\nType=Application\nExec=no-such-program-anywhere\n"},
        {"relative", "[Desktop Entry]\nType=Application\nExec=Sample.app/Contents/Linux/tool\n"},
        {"outside of bundles", "[Desktop Entry]\nType=Application\nExec=" + loose.string() + "\n"},
        {"not executable", "[Desktop Entry]\nType=Application\nExec=\"" + data.string() + "\"\n"},
        {"a folder", "[Desktop Entry]\nType=Application\nExec=\"" + bundle_.path() + "\"\n"},
    };
    for (const auto& row : table) {
        const auto entry = parse(row.content);
        ASSERT_FALSE(entry) << row.what;
        EXPECT_TRUE(entry.error().is(UtiliaErrorCode::NotFound))
            << row.what << ": " << entry.error().description;
    }
}

TEST_F(DesktopEntryTest, APipeInPlaceOfTheFileIsAnErrorAndNoWait) {
    const fs::path file = home_.path() / "pipe.desktop";
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    EXPECT_FALSE(DesktopEntry::read(file));
}

TEST_F(DesktopEntryTest, IsFoundInTheUsersFolderBeforeTheSystems) {
    const std::string system = (home_.path() / "share").string();
    setenv("XDG_DATA_DIRS",
           ("relative:" + (home_.path() / "absent").string() + ":" + system).c_str(), 1);
    const auto missing = DesktopEntry::find(kIdentifier);
    ASSERT_FALSE(missing);
    EXPECT_TRUE(missing.error().is(UtiliaErrorCode::NotFound));
    EXPECT_EQ(missing.error().description,
              std::string(kIdentifier) + ": no desktop entry names this application");

    writeFile(fs::path(system) / "applications" / kFile,
              start_.substr(0, start_.size() - 1) + " system\n");
    EXPECT_THAT(DesktopEntry::find(kIdentifier)->arguments, ElementsAre("system"));
    bundle_.install("role", {"user"});
    EXPECT_EQ(DesktopEntry::find(kIdentifier)->arguments.back(), "user");

    writeFile(home_.data() / "applications" / kFile,
              "[Desktop Entry]\nType=Application\nHidden=true\n");
    const auto hidden = DesktopEntry::find(kIdentifier);
    ASSERT_FALSE(hidden) << "an entry that the user hides stays hidden in the system's folder";
    EXPECT_TRUE(hidden.error().is(UtiliaErrorCode::NotFound));
}

TEST_F(DesktopEntryTest, IdentifiersThatAreNoFileNamesAreRefused) {
    for (const std::string& identifier :
         {std::string(), std::string(".."), std::string("../" + std::string(kIdentifier)),
          std::string("a/b"), std::string("a\0b", 3), std::string(300, 'a')}) {
        const auto entry = DesktopEntry::find(identifier);
        ASSERT_FALSE(entry);
        EXPECT_TRUE(entry.error().is(UtiliaErrorCode::Refused)) << identifier;
    }
}

}  // namespace
}  // namespace utilia::platform
