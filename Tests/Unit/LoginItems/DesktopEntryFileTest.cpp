#include "Common/Platform/Linux/DesktopEntryFile.h"

#include <filesystem>
#include <fstream>

#include <sys/stat.h>

#include "Tests/Support/TemporaryHome.h"

namespace utilia::platform {
namespace {

using testing::HasSubstr;

namespace fs = std::filesystem;

DesktopEntryFile fileWith(const std::string& text) {
    auto file = DesktopEntryFile::parse("entry.desktop", text);
    if (!file) throw std::runtime_error(file.error().description);
    return *std::move(file);
}

// As people and other programs leave such files behind.
const std::string kForeign = "# Written by hand.\n"
                             "\n"
                             "[Desktop Entry]\n"
                             "Type = Application\n"
                             "Name=Foreign\n"
                             "Name[de]=Fremd\n"
                             "\n"
                             "  # about the next line\n"
                             "Exec=/bin/true   \n"
                             "X-Unknown=a;b;c;\n"
                             "\n"
                             "[Desktop Action Quit]\n"
                             "Hidden=true\n"
                             "Exec=/bin/false\n"
                             "\n\n"
                             "[X-Another Group]\n"
                             "key=value without a line end";

TEST(DesktopEntryFile, KeysAreThoseOfItsOwnGroup) {
    const auto file = fileWith(kForeign);
    EXPECT_EQ(file.string("Type"), "Application");
    EXPECT_EQ(file.string("Name"), "Foreign");
    EXPECT_EQ(file.string("key"), std::nullopt);
    EXPECT_FALSE(file.boolean("Hidden", false));
    EXPECT_EQ(file.text(), kForeign);
}

TEST(DesktopEntryFile, BooleansThatAreNoneReadAsAbsent) {
    const auto file =
        fileWith("[Desktop Entry]\nA=true\nB=false\nC=1\nD=0\nE=maybe\nF=\nG=true \n");
    const struct {
        const char* key;
        bool withFalse;
        bool withTrue;
    } table[] = {{"A", true, true},  {"B", false, false}, {"C", true, true}, {"D", false, false},
                 {"E", false, true}, {"F", false, true},  {"G", true, true}, {"H", false, true}};
    for (const auto& row : table) {
        EXPECT_EQ(file.boolean(row.key, false), row.withFalse) << row.key;
        EXPECT_EQ(file.boolean(row.key, true), row.withTrue) << row.key;
    }
}

TEST(DesktopEntryFile, AMarkComesAndGoesWithoutATrace) {
    for (const std::string& text :
         {kForeign, std::string("[Desktop Entry]\n"), std::string("[Desktop Entry]\nName=x"),
          std::string("[Desktop Entry]\r\nName=x\r\n\r\n"), std::string("\n\n[Desktop Entry] \n\n"),
          "[Desktop Entry]\nName=x\n# \xff is no UTF-8\n" + std::string(1000, '\n')}) {
        const auto marked = fileWith(text).withBoolean("Hidden", true);
        ASSERT_TRUE(marked) << text;
        EXPECT_TRUE(marked->boolean("Hidden", false)) << text;
        EXPECT_EQ(marked->text().size(), text.size() + std::string("Hidden=true\n").size());
        const auto unmarked = marked->without("Hidden");
        ASSERT_TRUE(unmarked) << text;
        EXPECT_EQ(unmarked->text(), text);
    }
}

TEST(DesktopEntryFile, OnlyTheLinesOfTheKeyChange) {
    const struct {
        const char* what;
        std::string before;
        std::string after;
    } table[] = {
        {"value", "[Desktop Entry]\nA=1\nHidden=false\nB=2\n",
         "[Desktop Entry]\nHidden=true\nA=1\nB=2\n"},
        {"blanks", "[Desktop Entry]\n Hidden = false\t\nB=2\n",
         "[Desktop Entry]\nHidden=true\nB=2\n"},
        {"twice", "[Desktop Entry]\nHidden=true\nA=1\nHidden=false",
         "[Desktop Entry]\nHidden=true\nA=1\n"},
        {"commented", "[Desktop Entry]\n#Hidden=true\n",
         "[Desktop Entry]\nHidden=true\n#Hidden=true\n"},
        {"other keys", "[Desktop Entry]\nHiddenX=1\nXHidden=1\nHidden[de]=true\nhidden=true\n",
         "[Desktop Entry]\nHidden=true\nHiddenX=1\nXHidden=1\nHidden[de]=true\nhidden=true\n"},
        {"other group", "[Desktop Entry]\nA=1\n[Other]\nHidden=false\n",
         "[Desktop Entry]\nHidden=true\nA=1\n[Other]\nHidden=false\n"},
        {"the group twice", "[Desktop Entry]\nA=1\n[Other]\n[Desktop Entry]\nHidden=false\n",
         "[Desktop Entry]\nHidden=true\nA=1\n[Other]\n[Desktop Entry]\n"},
        {"damaged heading", "[Desktop Entry]\x81 \x82\nHidden=0\n[Desktop Entry]\nHidden=0\n",
         "[Desktop Entry]\x81 \x82\nHidden=true\n[Desktop Entry]\n"},
        {"no line end", "[Desktop Entry]", "[Desktop Entry]\nHidden=true\n"},
    };
    for (const auto& row : table) {
        const auto marked = fileWith(row.before).withBoolean("Hidden", true);
        ASSERT_TRUE(marked) << row.what;
        EXPECT_EQ(marked->text(), row.after) << row.what;
        EXPECT_TRUE(marked->boolean("Hidden", false)) << row.what;
        EXPECT_FALSE(marked->without("Hidden")->boolean("Hidden", false)) << row.what;
    }
}

TEST(DesktopEntryFile, AFileThatHasNoPlaceForAMarkIsNotChanged) {
    for (const char* text : {"[Other]\nHidden=true\n", "# nothing\n"}) {
        const auto file = fileWith(text);
        const auto marked = file.withBoolean("Hidden", true);
        ASSERT_FALSE(marked) << text;
        EXPECT_EQ(marked.error().description, "entry.desktop: cannot be changed");
        EXPECT_EQ(file.without("Hidden")->text(), text);
    }
}

TEST(DesktopEntryFile, OnlyShowInAndNotShowInAreReadAsTheDesktopsDo) {
    const struct {
        const char* keys;
        const char* desktops;
        bool isShown;
    } table[] = {
        {"", "", true},
        {"", "GNOME", true},
        {"OnlyShowIn=GNOME;XFCE;\n", "XFCE", true},
        {"OnlyShowIn=GNOME;XFCE;\n", "ubuntu:GNOME", true},
        {"OnlyShowIn=GNOME;XFCE;\n", "KDE", false},
        {"OnlyShowIn=GNOME;XFCE;\n", "", false},
        {"OnlyShowIn=GNOME;XFCE;\n", "gnome", false},
        {"OnlyShowIn=\n", "GNOME", false},
        {"NotShowIn=KDE;\n", "KDE", false},
        {"NotShowIn=KDE;\n", "GNOME:KDE", false},
        {"NotShowIn=KDE;\n", "GNOME", true},
        {"NotShowIn=KDE;\n", "", true},
        {"OnlyShowIn=GNOME;\nNotShowIn=KDE;\n", "GNOME:KDE", true},
        {"OnlyShowIn=GNOME;\nNotShowIn=KDE;\n", "KDE:GNOME", false},
        {"OnlyShowIn=GNOME\n", "::GNOME:", true},
    };
    for (const auto& row : table) {
        EXPECT_EQ(fileWith("[Desktop Entry]\n" + std::string(row.keys)).isShownIn(row.desktops),
                  row.isShown)
            << row.keys << " in " << row.desktops;
    }
}

TEST(DesktopEntryFile, WhatIsNoGroupOfKeysIsRefused) {
    for (const std::string& text :
         {std::string(), std::string("Name=x\n"), std::string("[Desktop Entry\nName=x\n"),
          std::string("[Desktop Entry]\nno key\n"), std::string("[Desktop Entry]\nName=x\0y\n", 25),
          std::string(64, '\0')}) {
        const auto file = DesktopEntryFile::parse("entry.desktop", text);
        ASSERT_FALSE(file) << text;
        EXPECT_TRUE(file.error().is(UtiliaErrorCode::Refused)) << text;
        EXPECT_THAT(file.error().description, testing::StartsWith("entry.desktop: "));
    }
}

TEST(DesktopEntryFile, ReadsNothingButFilesOfABoundedSize) {
    const test::TemporaryHome home;
    const fs::path path = home.path() / "entry.desktop";
    EXPECT_TRUE(DesktopEntryFile::read(path).error().isPosix(ENOENT));
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_FALSE(DesktopEntryFile::read(path));
    fs::remove(path);
    fs::create_symlink(path, path);
    EXPECT_TRUE(DesktopEntryFile::read(path).error().isPosix(ELOOP));
    fs::remove(path);
    std::ofstream(path) << "[Desktop Entry]\n" << std::string(10 << 20, '#') << "\n";
    EXPECT_TRUE(DesktopEntryFile::read(path).error().isPosix(EFBIG));
    fs::resize_file(path, DesktopEntryFile::kMaximumSize);
    EXPECT_TRUE(DesktopEntryFile::read(path));
}

TEST(DesktopEntryFile, TextSurvivesAsAValue) {
    for (const std::string& text :
         {std::string("plain"), std::string("two words"), std::string(" blank first"),
          std::string("tab\tand\\backslash"), std::string("line\nbreak\r"), std::string("ü%f$x")}) {
        EXPECT_EQ(
            fileWith("[Desktop Entry]\nName=" + desktopEntryString(text) + "\n").string("Name"),
            text);
    }
}

TEST(DesktopEntryFile, ArgumentsAreQuotedInThreeLayers) {
    const struct {
        const char* argument;
        const char* written;
    } table[] = {
        {"/opt/a", "\"/opt/a\""},
        {"/opt/a b", "\"/opt/a b\""},
        {"it's", "\"it's\""},
        {"\"", "\"\\\\\"\""},
        {"$HOME `id`", "\"\\\\$HOME \\\\`id\\\\`\""},
        {"\\", "\"\\\\\\\\\""},
        {"100%", "\"100%%\""},
        {"%f", "\"%%f\""},
        {"", "\"\""},
    };
    for (const auto& row : table) EXPECT_EQ(desktopEntryArgument(row.argument), row.written);
}

}  // namespace
}  // namespace utilia::platform
