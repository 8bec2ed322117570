#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "Common/Platform/Image.h"
#include "Common/Platform/Linux/ModuleLoader.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/CopyOfThisProgram.h"
#include "Tests/Support/LoadedLibraries.h"
#include "Tests/Support/Places.h"
#include "Tests/Support/TestLog.h"

// This program must not link libtiff itself: it looks at when the framework does.

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;

namespace fs = std::filesystem;

namespace {

UTILIA_CHILD_ROLE(useImages) {
    const auto sayLoaded = [&self](const char* when) {
        self.say(std::string(when) + (isLoaded("libtiff") ? ": loaded" : ": not loaded"));
    };
    sayLoaded("start");
    const auto referenced = Image::initByReferencingFile("/nowhere/MenuTemplate.tiff");
    const auto drawn = Image::initWithBitmap({2, 2, Data(16)});
    drawn->setTemplate(referenced->isTemplate());
    static_cast<void>(drawn->isValid() && drawn->pixelsWide() && drawn->representation(0));
    static_cast<void>(referenced->isValid());
    sayLoaded("without content");
    static_cast<void>(drawn->TIFFRepresentation());
    sayLoaded("written");
    return 0;
}

TEST(ImageModule, IsLoadedWithTheFirstContentAndNotBefore) {
    auto child = ChildProcess::role("useImages");
    EXPECT_EQ(child.waitForLine(), "start: not loaded");
    EXPECT_EQ(child.waitForLine(), "without content: not loaded");
    EXPECT_EQ(child.waitForLine(), "written: loaded");
    EXPECT_EQ(child.waitForExit(), 0);
}

UTILIA_CHILD_ROLE(useImagesWithoutModule) {
    const TestLog log;
    const Data bytes{'I', 'I', 42, 0};
    const auto drawn = Image::initWithBitmap({1, 1, {1, 2, 3, 4}});
    const auto referenced = Image::initByReferencingFile(self.arguments.at(0));
    self.say(Image::initWithData(bytes) ? "image" : "no image");
    self.say(referenced->isValid() || referenced->representationCount() ? "valid" : "invalid");
    self.say(drawn->isValid() && drawn->representation(0)->rgba == Data{1, 2, 3, 4}
                 ? "pixels stay"
                 : "pixels are lost");
    self.say(drawn->TIFFRepresentation() ? "written" : "not written");
    const auto again = moduleSymbol("Icons", "utiliaIconsModule");
    self.say(again                                            ? "symbol"
             : again.error().is(UtiliaErrorCode::Unavailable) ? "unavailable"
                                                              : "another error");
    self.say(std::to_string(log.lines().size()));
    self.say(log.lines().empty() ? "" : log.lines()[0]);
    return 0;
}

class ModuleInAnotherPlace : public testing::Test {
protected:
    ModuleInAnotherPlace() { std::ofstream(icon(), std::ios::binary) << "no matter what"; }
    std::string icon() const { return copy_.folder() / "icon.tiff"; }

    // Answers the one log line.
    std::string expectImagesToBeUnusable(const std::string& symbol = "unavailable") {
        auto child = copy_.role("useImagesWithoutModule", {icon()});
        EXPECT_EQ(child.waitForLine(), "no image");
        EXPECT_EQ(child.waitForLine(), "invalid");
        EXPECT_EQ(child.waitForLine(), "pixels stay");
        EXPECT_EQ(child.waitForLine(), "not written");
        EXPECT_EQ(child.waitForLine(), symbol);
        EXPECT_EQ(child.waitForLine(), "1");
        const std::string line = child.waitForLine().value_or("");
        EXPECT_EQ(child.waitForExit(), 0);
        return line;
    }

    const CopyOfThisProgram copy_;
};

TEST_F(ModuleInAnotherPlace, WithoutABundleThereAreNoImages) {
    EXPECT_EQ(expectImagesToBeUnusable(),
              "Images cannot be used: module Icons: the framework's bundle is missing");
}

TEST_F(ModuleInAnotherPlace, WithoutTheModuleThereAreNoImages) {
    copy_.modules();
    const std::string line = expectImagesToBeUnusable();
    EXPECT_TRUE(line.starts_with("Images cannot be used: module Icons: ")) << line;
    EXPECT_NE(line.find("Icons.so"), std::string::npos) << line;
}

TEST_F(ModuleInAnotherPlace, WithABrokenModuleThereAreNoImages) {
    copy_.useBrokenModule("Icons");
    const std::string line = expectImagesToBeUnusable();
    EXPECT_TRUE(line.starts_with("Images cannot be used: module Icons: ")) << line;
}

TEST_F(ModuleInAnotherPlace, WithAModuleThatLacksTheTableThereAreNoImages) {
    copy_.useModule("Icons", test::places::kEmptyModule);
    const std::string line = expectImagesToBeUnusable();
    EXPECT_NE(line.find("utiliaIconsModule"), std::string::npos) << line;
}

TEST_F(ModuleInAnotherPlace, WithAModuleOfAnotherVersionThereAreNoImages) {
    copy_.useModule("Icons", test::places::kForeignModule);
    EXPECT_EQ(expectImagesToBeUnusable("symbol"),
              "Images cannot be used: module Icons: version 999 instead of 4");
}

const Data kPng{0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n', 0, 0, 0, 0};

constexpr const char* kExportLibraries[] = {"libpng",     "libjpeg",    "libgif",
                                            "libopenjp2", "libdeflate", "Modules/Export.so"};

// Those of the libraries of the Export module that are loaded.
std::string loadedExportLibraries() {
    std::string loaded;
    for (const char* const library : kExportLibraries) {
        if (isLoaded(library)) loaded.append(loaded.empty() ? "" : " ").append(library);
    }
    return loaded.empty() ? "none" : loaded;
}

UTILIA_CHILD_ROLE(useBitmaps) {
    self.say(loadedExportLibraries());
    const auto drawn = Image::initWithBitmap({2, 2, Data(16)});
    static_cast<void>(Image::initWithData(Data(100, 'x')));
    static_cast<void>(Image::initWithData(drawn->TIFFRepresentation().value()));
    static_cast<void>(drawn->representationUsingType(0, BitmapImageFileType::Tiff));
    self.say(loadedExportLibraries());
    static_cast<void>(Image::initWithData(kPng));
    self.say(loadedExportLibraries());
    return 0;
}

// libdeflate comes with libtiff as well.
TEST(ExportModule, IsLoadedWithTheFirstBytesOfItsFormatsAndNotBefore) {
    auto child = ChildProcess::role("useBitmaps");
    EXPECT_EQ(child.waitForLine(), "none");
    const std::string icons = child.waitForLine().value_or("");
    EXPECT_EQ(icons.find("libpng"), std::string::npos) << icons;
    EXPECT_EQ(icons.find("libgif"), std::string::npos) << icons;
    EXPECT_EQ(icons.find("libopenjp2"), std::string::npos) << icons;
    EXPECT_EQ(icons.find("Export.so"), std::string::npos) << icons;
    EXPECT_EQ(child.waitForLine(), "libpng libjpeg libgif libopenjp2 libdeflate Modules/Export.so");
    EXPECT_EQ(child.waitForExit(), 0);
}

UTILIA_CHILD_ROLE(useBitmapsWithoutModule) {
    const TestLog log;
    const auto drawn = Image::initWithBitmap({1, 1, {1, 2, 3, 4}});
    self.say(Image::initWithData(kPng) ? "image" : "no image");
    const auto written = drawn->representationUsingType(0, BitmapImageFileType::Png);
    self.say(written                                            ? "written"
             : written.error().is(UtiliaErrorCode::Unavailable) ? "unavailable"
                                                                : "another error");
    self.say(drawn->representationUsingType(0, BitmapImageFileType::Tiff) ? "TIFF" : "no TIFF");
    self.say(std::to_string(log.lines().size()));
    self.say(log.lines().empty() ? "" : log.lines()[0]);
    return 0;
}

class ExportModuleInAnotherPlace : public ModuleInAnotherPlace {
protected:
    ExportModuleInAnotherPlace() {
        copy_.useModule("Icons", fs::path(ownProgramPath()).parent_path() / ".." / "lib" /
                                     "UtiliaCommon.framework" / "Modules" / "Icons.so");
    }
    // Answers the one log line.
    std::string expectNoFormatButTiff() {
        auto child = copy_.role("useBitmapsWithoutModule", {});
        EXPECT_EQ(child.waitForLine(), "no image");
        EXPECT_EQ(child.waitForLine(), "unavailable");
        EXPECT_EQ(child.waitForLine(), "TIFF");
        EXPECT_EQ(child.waitForLine(), "1");
        const std::string line = child.waitForLine().value_or("");
        EXPECT_EQ(child.waitForExit(), 0);
        return line;
    }
};

TEST_F(ExportModuleInAnotherPlace, WithoutTheModuleThereIsOnlyTiff) {
    const std::string line = expectNoFormatButTiff();
    EXPECT_TRUE(line.starts_with("Images cannot be used: module Export: ")) << line;
    EXPECT_NE(line.find("Export.so"), std::string::npos) << line;
}

TEST_F(ExportModuleInAnotherPlace, WithABrokenModuleThereIsOnlyTiff) {
    copy_.useBrokenModule("Export");
    EXPECT_TRUE(expectNoFormatButTiff().starts_with("Images cannot be used: module Export: "));
}

TEST_F(ExportModuleInAnotherPlace, WithAModuleThatLacksTheTableThereIsOnlyTiff) {
    copy_.useModule("Export", test::places::kEmptyModule);
    const std::string line = expectNoFormatButTiff();
    EXPECT_NE(line.find("utiliaExportModule"), std::string::npos) << line;
}

TEST_F(ExportModuleInAnotherPlace, WithAModuleOfAnotherVersionThereIsOnlyTiff) {
    copy_.useModule("Export", test::places::kForeignModule);
    EXPECT_EQ(expectNoFormatButTiff(),
              "Images cannot be used: module Export: version 999 instead of 2");
}

}  // namespace
