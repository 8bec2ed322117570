#include <set>

#include "Common/Platform/Bundle.h"
#include "Tests/Process/Reporting/UploadFixture.h"
#include "Tests/Support/TestVectors.h"

// How the archiver that the command finds first names what it packs (-s): the command relies on it.

namespace utilia {
namespace {

namespace fs = std::filesystem;

std::string bundledTar() {
    const auto* const framework = platform::Bundle::frameworkBundle();
    const auto path =
        framework ? framework->pathForResource("UtiliaCommon", "bundle") : std::nullopt;
    const auto resources = path ? platform::Bundle::bundleWithPath(*path) : nullptr;
    return resources ? resources->pathForAuxiliaryExecutable("tar").value_or("") : "";
}

std::string pack(const fs::path& folder, const std::string& substitution,
                 const std::string& member) {
    const fs::path archive = folder / "packed.tar.gz";
    fs::remove(archive);
    const std::vector<std::string> words = {"-czf", archive,      "-C",  folder,
                                            "-s",   substitution, member};
    EXPECT_EQ(test::outputOf(bundledTar(), words, folder), "");
    return archive;
}

TEST(TarSubstitution, NamesMembersAsTheVectorsSay) {
    ASSERT_NE(bundledTar(), "");
    std::set<std::string> read;
    for (const auto& vector : test::testVectors("tar-substitution")) {
        const auto id = vector.at("id").get<std::string>();
        SCOPED_TRACE(id);
        EXPECT_TRUE(read.insert(id).second) << "twice";
        const auto& input = vector.at("input");
        ASSERT_EQ(input.size(), 2u) << "what else there is would not be tried";
        const auto member = input.at("member").get<std::string>();
        const test::TemporaryFolder folder;
        fs::create_directories((folder.path() / member).parent_path());
        test::writeFile(folder.path() / member, id);

        const std::string archive = pack(folder.path(), input.at("-s").get<std::string>(), member);
        const auto& expected = vector.at("expected");
        const bool isLeftOut = expected.is_null();
        const std::string names = isLeftOut ? "" : expected.get<std::string>() + "\n";
        // A backslash is shown twice.
        std::string shown;
        for (const char letter : names) shown.append(letter == '\\' ? 2 : 1, letter);
        EXPECT_EQ(test::outputOf(bundledTar(), {"-tzf", archive}, folder.path()), shown);
        EXPECT_EQ(test::outputOf(bundledTar(), {"-xzOf", archive}, folder.path()),
                  isLeftOut ? "" : id);
    }
    EXPECT_EQ(read.size(), 9u);
}

// The shell takes the command's backslashes away.
TEST(TarSubstitution, NamesEveryReportAlike) {
    const test::TemporaryFolder folder;
    for (const char* name :
         {"utilia_report.xml", "utilia_report (2).xml", "a.xml b.xml", "_xml.xml"}) {
        const fs::path report = folder.path() / "CEP reports" / name;
        fs::create_directories(report.parent_path());
        test::writeFile(report, "x");
        const std::string archive = pack(folder.path(), "/.*.xml/Report.xml/g", report);
        EXPECT_EQ(test::outputOf(bundledTar(), {"-tzf", archive}, folder.path()), "Report.xml\n")
            << name;
    }
}

}  // namespace
}  // namespace utilia
