#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>
#include <plist/plist.h>

#include "Common/Platform/FileManager.h"
#include "Common/Platform/PropertyListSerialization.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/TemporaryHome.h"

// What other programs and libraries think of our files, and we of theirs.

namespace utilia::platform {
namespace {

using test::ChildProcess;

// Values that every implementation can hold.
Value sample() {
    return Dictionary{
        {"Scheduler", Array{Dictionary{{"bundleid", "com.example.tool"},
                                       {"name", "Tool & Söhne"},
                                       {"launchAtDate", true},
                                       {"date", Date{636613567}},
                                       {"interval", 0.5},
                                       {"count", -3}}}},
        {"icon", Data(200, 7)},
        {"empty", Dictionary{{"array", Array()}, {"text", ""}}},
        {"large", std::uint64_t{1} << 63},
        {"emoji", "\xF0\x9F\x98\x80"},
    };
}

class PropertyListTools : public testing::Test {
protected:
    std::string save(const char* name, PropertyListFormat format) const {
        const std::string path = folder_.path() / name;
        const auto bytes = dataFromPropertyList(sample(), format);
        EXPECT_TRUE(bytes && FileManager::writeAtomically(path, *bytes));
        return path;
    }
    static int run(const char* program, std::vector<std::string> arguments) {
        auto child = ChildProcess::program(program, std::move(arguments));
        return child.waitForExit().value_or(-1);
    }

    const test::TemporaryFolder folder_;
};

TEST_F(PropertyListTools, XmllintFindsOurXmlWellFormed) {
    EXPECT_EQ(
        run("/usr/bin/xmllint", {"--noout", "--nonet", save("a.plist", PropertyListFormat::Xml)}),
        0);
}

TEST_F(PropertyListTools, PlistutilConvertsOurBinaryFormToXmlThatWeReadAsTheSame) {
    const std::string xml = folder_.path() / "b.xml";
    ASSERT_EQ(run("/usr/bin/plistutil",
                  {"-i", save("b.plist", PropertyListFormat::Binary), "-o", xml, "-f", "xml"}),
              0);
    const auto value =
        propertyListFromData(FileManager::contentsAtPath(xml, 1 << 20).value_or(Data()));
    ASSERT_TRUE(value) << value.error().description;
    EXPECT_TRUE(*value == sample());
}

TEST_F(PropertyListTools, PlistutilConvertsOurXmlToTheBinaryFormThatWeReadAsTheSame) {
    const std::string binary = folder_.path() / "c.bin";
    ASSERT_EQ(run("/usr/bin/plistutil",
                  {"-i", save("c.plist", PropertyListFormat::Xml), "-o", binary, "-f", "bin"}),
              0);
    const auto value =
        propertyListFromData(FileManager::contentsAtPath(binary, 1 << 20).value_or(Data()));
    ASSERT_TRUE(value) << value.error().description;
    EXPECT_TRUE(*value == sample());
}

TEST_F(PropertyListTools, LibplistReadsBothFormsAsOneAndWritesThemBack) {
    for (const auto format : {PropertyListFormat::Binary, PropertyListFormat::Xml}) {
        const auto ours = dataFromPropertyList(sample(), format);
        ASSERT_TRUE(ours);
        plist_t tree = nullptr;
        plist_from_memory(reinterpret_cast<const char*>(ours->data()),
                          static_cast<std::uint32_t>(ours->size()), &tree);
        ASSERT_NE(tree, nullptr);
        char* theirs = nullptr;
        std::uint32_t size = 0;
        plist_to_bin(tree, &theirs, &size);
        plist_free(tree);
        ASSERT_NE(theirs, nullptr);
        const auto value =
            propertyListFromData({reinterpret_cast<const std::uint8_t*>(theirs), size});
        std::free(theirs);
        ASSERT_TRUE(value) << value.error().description;
        EXPECT_TRUE(*value == sample());
    }
}

}  // namespace
}  // namespace utilia::platform
