#include "Common/Platform/Bundle.h"

#include <filesystem>
#include <thread>
#include <vector>

#include <dlfcn.h>
#include <sys/auxv.h>
#include <sys/stat.h>

#include "Common/Platform/Linux/BundleInternal.h"
#include "Common/Platform/PropertyListSerialization.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"
#include "Tests/Support/TestLog.h"
#include "Tests/Unit/Applications/TestFiles.h"

namespace utilia::platform {
namespace {

using test::ChildProcess;
using test::TemporaryFolder;
using test::TemporaryHome;
using test::TestBundle;
using test::TestLog;
using test::writeFile;
using testing::HasSubstr;

namespace fs = std::filesystem;

std::string infoPlist(const TestBundle& bundle) { return bundle.path() + "/Contents/Info.plist"; }

std::string text(const std::optional<std::string>& value) { return value.value_or("(nil)"); }

UTILIA_CHILD_ROLE(tellMainBundle) {
    const Bundle* const bundle = Bundle::mainBundle();
    self.say(bundle ? bundle->bundlePath() : "(nil)");
    if (!bundle) return 0;
    self.say(text(bundle->bundleIdentifier()));
    self.say(text(bundle->executablePath()));
    self.waitForLine();
    self.say(Bundle::mainBundle()->bundlePath());
    return 0;
}

std::string mainBundleOf(const fs::path& program) {
    test::ChildProcessOptions options;
    options.program = program;
    auto child = ChildProcess::role("tellMainBundle", {}, options);
    return child.waitForLine().value_or("(no answer)");
}

TEST(MainBundle, IsTheFolderAroundTheProgram) {
    const TemporaryHome home;
    const TestBundle bundle(home);
    auto child = bundle.role("tellMainBundle");
    EXPECT_EQ(child.waitForLine(), bundle.path());
    EXPECT_EQ(child.waitForLine(), "com.korvane.utilia.SampleTool");
    EXPECT_EQ(child.waitForLine(), bundle.program());
}

TEST(MainBundle, IsNoneForAProgramOutsideOfBundles) { EXPECT_EQ(Bundle::mainBundle(), nullptr); }

TEST(MainBundle, IsNoneForAnyOtherShape) {
    for (const char* shape : {
             "X.app/Contents/MacOS/program",       // the folder of another system
             "X.app/Contents/Linux/more/program",  // too deep
             "X.app/Linux/program",                // no Contents
             "X/Contents/Linux/program",           // no extension
             "X.APP/Contents/Linux/program",       // another extension
             ".app/Contents/Linux/program",        // an extension alone
             "X.app/program",                      // a program in the bundle's top
         }) {
        const TemporaryFolder folder;
        const fs::path program = folder.path() / shape;
        test::placeTestProgram(program);
        const fs::path top = folder.path() / *fs::path(shape).begin();
        writeFile(top / "Contents" / "Info.plist", test::infoPlistText(""));
        EXPECT_EQ(mainBundleOf(program), "(nil)") << shape;
    }
}

TEST(MainBundle, IsNoneWithoutAnInfoPlistFile) {
    const TemporaryFolder folder;
    const fs::path program = folder.path() / "X.app/Contents/Linux/program";
    test::placeTestProgram(program);
    EXPECT_EQ(mainBundleOf(program), "(nil)");
    fs::create_directory(folder.path() / "X.app/Contents/Info.plist");
    EXPECT_EQ(mainBundleOf(program), "(nil)") << "a folder of that name is no Info.plist";
}

TEST(MainBundle, HasNoSymbolicLinksInItsPath) {
    const TemporaryHome home;
    const TestBundle bundle(home);
    fs::create_directory_symlink(home.path() / "Applications", home.path() / "folder-link");
    fs::create_directory_symlink(bundle.path(), home.path() / "Other.app");
    fs::create_symlink(bundle.program(), home.path() / "program-link");
    EXPECT_EQ(mainBundleOf(home.path() / "folder-link/Sample Tool.app/Contents/Linux/tool"),
              bundle.path());
    EXPECT_EQ(mainBundleOf(home.path() / "Other.app/Contents/Linux/tool"), bundle.path());
    EXPECT_EQ(mainBundleOf(home.path() / "program-link"), bundle.path());
}

// The loader of this program, which can be told to run any other.
std::string pathOfLoader() {
    Dl_info found{};
    const auto base = getauxval(AT_BASE);
    return dladdr(reinterpret_cast<const void*>(base), &found) ? found.dli_fname : "";
}

TEST(MainBundle, OfAProgramThatIsGivenToTheLoaderIsThatPrograms) {
    const TemporaryHome home;
    const TestBundle bundle(home);
    const std::string loader = pathOfLoader();
    ASSERT_TRUE(fs::exists(loader)) << loader;
    auto child = test::ChildProcess::program(
        loader, {bundle.program(), test::kChildRoleSwitch, "tellMainBundle"});
    EXPECT_EQ(child.waitForLine(), bundle.path());
    EXPECT_EQ(child.waitForLine(), "com.korvane.utilia.SampleTool");
    EXPECT_EQ(child.waitForLine(), bundle.program());
}

TEST(MainBundle, KeepsItsPathWhenTheFolderMoves) {
    const TemporaryHome home;
    const TestBundle bundle(home);
    auto child = bundle.role("tellMainBundle");
    ASSERT_EQ(child.waitForLine(), bundle.path());
    child.waitForLine();
    child.waitForLine();
    fs::rename(bundle.path(), home.path() / "Moved.app");
    child.say("moved");
    EXPECT_EQ(child.waitForLine(), bundle.path());
}

TEST(BundlePathOfProgram, TakesOnlyAbsolutePaths) {
    const TemporaryHome home;
    const TestBundle bundle(home);
    EXPECT_EQ(bundlePathOfProgram(bundle.program()), bundle.path());
    for (const char* program : {"", "/", "program", "Sample.app/Contents/Linux/Sample",
                                "/Contents/Linux/x", "/.app/Contents/Linux/x"}) {
        EXPECT_EQ(bundlePathOfProgram(program), std::nullopt) << program;
    }
    EXPECT_EQ(bundlePathOfProgram(bundle.path() + "/Contents/Linux/"), std::nullopt);
}

TEST(Bundle, IsFoundByPathWithLinksResolved) {
    const TemporaryHome home;
    const TestBundle sample(home);
    fs::create_directory_symlink(sample.path(), home.path() / "Link.app");
    const auto bundle = Bundle::bundleWithPath((home.path() / "Link.app/").string());
    ASSERT_NE(bundle, nullptr);
    EXPECT_EQ(bundle->bundlePath(), sample.path());
    EXPECT_EQ(bundle->bundleIdentifier(), sample.options().bundleIdentifier);
    EXPECT_EQ(bundle->executablePath(), sample.program());
}

TEST(Bundle, IsNoneForAPathThatIsNoFolder) {
    const TemporaryFolder folder;
    writeFile(folder.path() / "file.app", "");
    EXPECT_EQ(Bundle::bundleWithPath((folder.path() / "file.app").string()), nullptr);
    EXPECT_EQ(Bundle::bundleWithPath((folder.path() / "missing.app").string()), nullptr);
    EXPECT_EQ(Bundle::bundleWithPath(""), nullptr);
    EXPECT_EQ(Bundle::bundleWithPath(std::string(folder.path().string() + std::string("\0x", 2))),
              nullptr);
}

TEST(Bundle, ReadsBinaryInfoPlists) {
    const TemporaryHome home;
    const TestBundle sample(home);
    const Dictionary capabilities{{"CanonicalName", "Canonical"}, {"NeedAgentForWork", true}};
    const auto bytes = dataFromPropertyList(Dictionary{{"CFBundleIdentifier", "com.example.binary"},
                                                       {"ToolCapabilities", capabilities}},
                                            PropertyListFormat::Binary);
    ASSERT_TRUE(bytes);
    writeFile(infoPlist(sample), {reinterpret_cast<const char*>(bytes->data()), bytes->size()});
    const auto bundle = Bundle::bundleWithPath(sample.path());
    EXPECT_EQ(bundle->bundleIdentifier(), "com.example.binary");
    EXPECT_EQ(bundle->infoDictionary().dictionary("ToolCapabilities"), capabilities);
}

TEST(Bundle, HasAnEmptyDictionaryAndOneLogLineForADamagedInfoPlist) {
    for (const std::string& content :
         {std::string(), std::string("bplist00"), std::string("<plist><dict>"),
          std::string(100, '\0'), std::string("<plist><array/></plist>")}) {
        const TemporaryHome home;
        const TestBundle sample(home);
        writeFile(infoPlist(sample), content);
        const TestLog log;
        const auto bundle = Bundle::bundleWithPath(sample.path());
        EXPECT_TRUE(log.lines().empty()) << "read before anybody asked";
        EXPECT_TRUE(bundle->infoDictionary().empty());
        EXPECT_EQ(bundle->bundleIdentifier(), std::nullopt);
        EXPECT_EQ(bundle->executablePath(), std::nullopt);
        ASSERT_EQ(log.lines().size(), 1u);
        EXPECT_THAT(log.lines()[0],
                    HasSubstr("Bundle: " + infoPlist(sample) + " cannot be used: "));
    }
}

TEST(Bundle, DoesNotWaitForAnInfoPlistThatIsAPipe) {
    const TemporaryHome home;
    const TestBundle sample(home);
    fs::remove(infoPlist(sample));
    ASSERT_EQ(mkfifo(infoPlist(sample).c_str(), 0600), 0);
    const TestLog log;
    EXPECT_TRUE(Bundle::bundleWithPath(sample.path())->infoDictionary().empty());
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST(Bundle, HasAnEmptyDictionaryWithoutAnInfoPlist) {
    const TemporaryFolder folder;
    const TestLog log;
    EXPECT_TRUE(Bundle::bundleWithPath(folder.path().string())->infoDictionary().empty());
    EXPECT_TRUE(log.lines().empty());
}

TEST(Bundle, ReadsItsInfoPlistOnceForAllThreads) {
    const TemporaryHome home;
    const TestBundle sample(home);
    writeFile(infoPlist(sample), "damaged");
    const TestLog log;
    const auto bundle = Bundle::bundleWithPath(sample.path());
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&bundle] { EXPECT_TRUE(bundle->infoDictionary().empty()); });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST(Bundle, AnEmptyIdentifierIsNone) {
    const TemporaryHome home;
    const TestBundle sample(home);
    writeFile(infoPlist(sample),
              test::infoPlistText("<key>CFBundleIdentifier</key><string></string>"));
    EXPECT_EQ(Bundle::bundleWithPath(sample.path())->bundleIdentifier(), std::nullopt);
}

TEST(Bundle, FindsAuxiliaryExecutablesByPlainNames) {
    const TemporaryHome home;
    const TestBundle sample(home);
    const fs::path programs = fs::path(sample.path()) / "Contents/Linux";
    writeFile(programs / "helper", "#!/bin/sh\n");
    chmod((programs / "helper").c_str(), 0755);
    writeFile(programs / "data", "");
    chmod((programs / "data").c_str(), 0644);
    fs::create_directory(programs / "folder");
    writeFile(fs::path(sample.path()) / "Contents/outside", "");
    chmod((fs::path(sample.path()) / "Contents/outside").c_str(), 0755);
    const auto bundle = Bundle::bundleWithPath(sample.path());

    EXPECT_EQ(bundle->pathForAuxiliaryExecutable("helper"), (programs / "helper").string());
    EXPECT_EQ(bundle->pathForAuxiliaryExecutable("tool"), sample.program());
    for (const std::string_view name :
         {std::string_view(""), std::string_view("."), std::string_view(".."),
          std::string_view("../outside"), std::string_view("../Linux/helper"),
          std::string_view("/bin/sh"), std::string_view("helper\0x", 8),
          std::string_view("missing"), std::string_view("data"), std::string_view("folder")}) {
        EXPECT_EQ(bundle->pathForAuxiliaryExecutable(name), std::nullopt) << name;
    }
}

TEST(Bundle, FindsResourcesByNameAndType) {
    const TemporaryHome home;
    const TestBundle sample(home);
    const fs::path resources = fs::path(sample.path()) / "Contents/Resources";
    writeFile(resources / "icon.tiff", "");
    writeFile(resources / "plain", "");
    fs::create_directories(resources / "More.bundle");
    const auto bundle = Bundle::bundleWithPath(sample.path());

    EXPECT_EQ(bundle->pathForResource("icon", "tiff"), (resources / "icon.tiff").string());
    EXPECT_EQ(bundle->pathForResource("icon.tiff", ""), (resources / "icon.tiff").string());
    EXPECT_EQ(bundle->pathForResource("plain", ""), (resources / "plain").string());
    EXPECT_EQ(bundle->pathForResource("More", "bundle"), (resources / "More.bundle").string());
    EXPECT_EQ(bundle->pathForResource("missing", "tiff"), std::nullopt);
    EXPECT_EQ(bundle->pathForResource("", ""), std::nullopt);
    EXPECT_EQ(bundle->pathForResource("", "tiff"), std::nullopt);
    EXPECT_EQ(bundle->pathForResource("..", ""), std::nullopt);
    EXPECT_EQ(bundle->pathForResource("../Info", "plist"), std::nullopt);
    EXPECT_EQ(bundle->pathForResource("icon", "tiff/../icon.tiff"), std::nullopt);
}

TEST(Bundle, OfAFrameworkHasItsResourcesAtTheTop) {
    const TemporaryFolder folder;
    const fs::path framework = folder.path() / "Sample.framework";
    writeFile(
        framework / "Resources/Info.plist",
        test::infoPlistText("<key>CFBundleIdentifier</key><string>com.example.framework</string>"));
    const fs::path inner = framework / "Resources/Sample.bundle";
    writeFile(inner / "Contents/Linux/tar", "");
    chmod((inner / "Contents/Linux/tar").c_str(), 0755);

    const auto bundle = Bundle::bundleWithPath(framework.string());
    EXPECT_EQ(bundle->bundleIdentifier(), "com.example.framework");
    const auto resource = bundle->pathForResource("Sample", "bundle");
    ASSERT_EQ(resource, inner.string());
    EXPECT_EQ(Bundle::bundleWithPath(*resource)->pathForAuxiliaryExecutable("tar"),
              (inner / "Contents/Linux/tar").string());
}

}  // namespace
}  // namespace utilia::platform
