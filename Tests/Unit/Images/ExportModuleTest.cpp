#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "Common/Platform/PDFContext.h"
#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"

// This program links none of the module's libraries: it looks at when the framework loads them.

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;

namespace fs = std::filesystem;

namespace {

bool isLoaded(const std::string& library) {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find(library) != std::string::npos) return true;
    }
    return false;
}

UTILIA_CHILD_ROLE(exportPages) {
    const auto sayLoaded = [&self](const char* when) {
        self.say(std::string(when) +
                 (isLoaded("/Export.so") || isLoaded("libdeflate") ? ": loaded" : ": not loaded"));
    };
    auto& auxiliary = CommonAuxiliary::sharedInstance();
    const auto drawn = Image::initWithBitmap({2, 2, Data(16)});
    static_cast<void>(drawn->CGImage());
    static_cast<void>(auxiliary.dataForImageAsPDF(nullptr, 0));
    sayLoaded("without an export");
    static_cast<void>(auxiliary.dataForImageAsPDF(drawn, 0));
    sayLoaded("with one");
    return 0;
}

TEST(ExportModule, IsLoadedWithTheFirstExportAndNotBefore) {
    auto child = ChildProcess::role("exportPages");
    EXPECT_EQ(child.waitForLine(), "without an export: not loaded");
    EXPECT_EQ(child.waitForLine(), "with one: loaded");
    EXPECT_EQ(child.waitForExit(), 0);
}

UTILIA_CHILD_ROLE(exportPagesWithoutModule) {
    const TestLog log;
    auto& auxiliary = CommonAuxiliary::sharedInstance();
    const auto drawn = Image::initWithBitmap({1, 1, {1, 2, 3, 4}});
    const std::string path = self.arguments.at(0);
    self.say(auxiliary.dataForImageAsPDF(drawn, 0) ? "pages" : "no pages");
    self.say(auxiliary.saveImageAsPDF(drawn, path, 0) || fs::exists(path) ? "a file" : "no file");
    const auto context = PDFContext::create({});
    self.say(context                                            ? "a context"
             : context.error().is(UtiliaErrorCode::Unavailable) ? "unavailable"
                                                                : "another error");
    self.say(std::to_string(log.lines().size()));
    self.say(context ? "" : context.error().description);
    return 0;
}

// A copy of this program beside a framework bundle of one's own.
class ExportModuleInAnotherPlace : public testing::Test {
protected:
    ExportModuleInAnotherPlace() {
        fs::create_directories(program().parent_path());
        fs::copy_file(ownProgramPath(), program());
    }
    fs::path program() const { return folder_.path() / "bin" / "program"; }
    // Puts a file in the module's place.
    void useModule(const fs::path& file) {
        const fs::path modules = folder_.path() / "lib" / "UtiliaCommon.framework" / "Modules";
        fs::create_directories(modules);
        fs::copy_file(file, modules / "Export.so");
    }

    // Answers why, which no export writes into the log.
    std::string expectNoPages() {
        ChildProcess::Options options;
        options.program = program().string();
        auto child = ChildProcess::role("exportPagesWithoutModule",
                                        {(folder_.path() / "pages.pdf").string()}, options);
        EXPECT_EQ(child.waitForLine(), "no pages");
        EXPECT_EQ(child.waitForLine(), "no file");
        EXPECT_EQ(child.waitForLine(), "unavailable");
        EXPECT_EQ(child.waitForLine(), "0");
        const std::string line = child.waitForLine().value_or("");
        EXPECT_EQ(child.waitForExit(), 0);
        return line;
    }

    TemporaryFolder folder_;
};

TEST_F(ExportModuleInAnotherPlace, WithoutABundleThereAreNoPages) {
    EXPECT_EQ(expectNoPages(), "module Export: the framework's bundle is missing");
}

TEST_F(ExportModuleInAnotherPlace, WithABrokenModuleThereAreNoPages) {
    const fs::path broken = folder_.path() / "broken";
    std::ofstream(broken) << "this is no library";
    useModule(broken);
    const std::string line = expectNoPages();
    EXPECT_TRUE(line.starts_with("module Export: ")) << line;
    EXPECT_NE(line.find("Export.so"), std::string::npos) << line;
}

TEST_F(ExportModuleInAnotherPlace, WithAModuleThatLacksTheTableThereAreNoPages) {
    useModule(UTILIA_EMPTY_MODULE);
    const std::string line = expectNoPages();
    EXPECT_NE(line.find("utiliaExportModule"), std::string::npos) << line;
}

TEST_F(ExportModuleInAnotherPlace, WithAModuleOfAnotherVersionThereAreNoPages) {
    useModule(UTILIA_FOREIGN_MODULE);
    const std::string line = expectNoPages();
    EXPECT_TRUE(line.starts_with("module Export: version 999 instead of ")) << line;
}

}  // namespace
