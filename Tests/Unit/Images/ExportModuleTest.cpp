#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "Common/Platform/PDFContext.h"
#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/CopyOfThisProgram.h"
#include "Tests/Support/LoadedLibraries.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/TestLog.h"

// This program links none of the module's libraries: it looks at when the framework loads them.

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;

namespace fs = std::filesystem;

namespace {

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

class ExportModuleInAnotherPlace : public testing::Test {
protected:
    // Answers why, which no export writes into the log.
    std::string expectNoPages() {
        auto child = copy_.role("exportPagesWithoutModule", {copy_.folder() / "pages.pdf"});
        EXPECT_EQ(child.waitForLine(), "no pages");
        EXPECT_EQ(child.waitForLine(), "no file");
        EXPECT_EQ(child.waitForLine(), "unavailable");
        EXPECT_EQ(child.waitForLine(), "0");
        const std::string line = child.waitForLine().value_or("");
        EXPECT_EQ(child.waitForExit(), 0);
        return line;
    }

    const CopyOfThisProgram copy_;
};

TEST_F(ExportModuleInAnotherPlace, WithoutABundleThereAreNoPages) {
    EXPECT_EQ(expectNoPages(), "module Export: the framework's bundle is missing");
}

TEST_F(ExportModuleInAnotherPlace, WithABrokenModuleThereAreNoPages) {
    copy_.useBrokenModule("Export");
    const std::string line = expectNoPages();
    EXPECT_TRUE(line.starts_with("module Export: ")) << line;
    EXPECT_NE(line.find("Export.so"), std::string::npos) << line;
}

TEST_F(ExportModuleInAnotherPlace, WithAModuleThatLacksTheTableThereAreNoPages) {
    copy_.useModule("Export", test::places::kEmptyModule);
    const std::string line = expectNoPages();
    EXPECT_NE(line.find("utiliaExportModule"), std::string::npos) << line;
}

TEST_F(ExportModuleInAnotherPlace, WithAModuleOfAnotherVersionThereAreNoPages) {
    copy_.useModule("Export", test::places::kForeignModule);
    const std::string line = expectNoPages();
    EXPECT_TRUE(line.starts_with("module Export: version 999 instead of ")) << line;
}

}  // namespace
