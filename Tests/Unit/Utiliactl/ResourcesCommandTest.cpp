#include <filesystem>
#include <string>
#include <vector>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/Places.h"
#include "Tests/Unit/Resources/ResourceFixture.h"

namespace utilia {
namespace {

namespace fs = std::filesystem;
using test::contentOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class ResourcesCommand : public test::ResourceFixture {
protected:
    struct Answer {
        int status = -1;
        std::string out;
        std::string err;
    };
    Answer run(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), "resources");
        test::ChildProcessOptions options;
        options.standardOutput = home_.path() / "out";
        options.standardError = home_.path() / "err";
        fs::remove(options.standardOutput);
        fs::remove(options.standardError);
        auto child = test::ChildProcess::program(test::places::kControlProgram, arguments, options);
        const int status = child.waitForExit().value_or(-1);
        return {status, contentOf(options.standardOutput), contentOf(options.standardError)};
    }
    // What a successful call writes.
    std::string answer(const std::vector<std::string>& arguments) const {
        const Answer given = run(arguments);
        EXPECT_EQ(given.status, 0) << given.err;
        EXPECT_EQ(given.err, "");
        return given.out;
    }
    std::string fileToGive() const { return given("new").string(); }
};

TEST_F(ResourcesCommand, ListsNothingWhereNothingIsShared) {
    EXPECT_EQ(answer({"list"}), "No resource is shared.\n");
    EXPECT_EQ(answer({"list", "--json"}), "[]\n");
}

TEST_F(ResourcesCommand, ListsRecordsAsTheyAre) {
    install("copy", {5, 1, 2, 3457});
    SharedResource("damaged", "other").updateValue(Value("5.1"), kResourceVersionKey);
    EXPECT_EQ(answer({"list", "--json"}), "[\n"
                                          "  {\n"
                                          "    \"bundleid\": \"com.korvane.utilia.SampleTool\",\n"
                                          "    \"name\": \"converter\",\n"
                                          "    \"version\": \"5.1.2-3457\",\n"
                                          "    \"path\": \"" +
                                              installed().string() +
                                              "\",\n"
                                              "    \"executable\": true\n"
                                              "  },\n"
                                              "  {\n"
                                              "    \"bundleid\": \"other\",\n"
                                              "    \"name\": \"damaged\",\n"
                                              "    \"version\": null,\n"
                                              "    \"path\": null,\n"
                                              "    \"executable\": false\n"
                                              "  }\n"
                                              "]\n");
    const std::string table = answer({"list"});
    EXPECT_THAT(table, StartsWith("BUNDLE IDENTIFIER "));
    EXPECT_THAT(table, HasSubstr("5.1.2 (3457)"));
    EXPECT_THAT(table, HasSubstr(installed().string()));
}

TEST_F(ResourcesCommand, TellsThePathThatAnApplicationGets) {
    EXPECT_EQ(answer({"path", kName, files_.path()}), internal().string() + "\n");
    install("copy", {5, 1, 2, 3457});
    EXPECT_EQ(answer({"path", kName, files_.path()}), installed().string() + "\n");
    EXPECT_EQ(answer({"path", kName, files_.path() + "/"}), installed().string() + "\n");
    const Answer none = run({"path", kName, home_.path().string()});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.err, "utiliactl: \"" + home_.path().string() + "\" is no bundle\n");
}

TEST_F(ResourcesCommand, TellsTheVersionThatWouldBeUsed) {
    const Answer none = run({"version", kName, kBundleId});
    EXPECT_EQ(none.status, 1);
    EXPECT_THAT(none.err, StartsWith("utiliactl: there is neither a usable copy of \"converter\""));
    install("copy", {1, 0, 0, 7});
    EXPECT_EQ(answer({"version", kName, kBundleId}), "1.0.0 (7)\n");
    files_.install("none");
    EXPECT_EQ(answer({"version", kName, kBundleId}), "5.1.2 (3456)\n");
    install("copy", {5, 1, 2, 3457});
    EXPECT_EQ(answer({"version", kName, kBundleId}), "5.1.2 (3457)\n");
    const test::TestBundle shortOne(
        home_, {.name = "Short",
                .bundleIdentifier = "com.korvane.utilia.Short",
                .info = {{"CFBundleShortVersionString", "1.2"}, {"CFBundleVersion", "7"}}});
    shortOne.install("none");
    EXPECT_EQ(answer({"version", kName, "com.korvane.utilia.Short"}), "1.2.7\n");
}

TEST_F(ResourcesCommand, InstallsAProgram) {
    EXPECT_EQ(answer({"install", fileToGive(), kName, "6.0.0 (1)", kBundleId, "--executable"}),
              "\"converter\" of \"com.korvane.utilia.SampleTool\" is installed with version "
              "6.0.0 (1).\n");
    EXPECT_EQ(contentOf(installed()), "new");
    EXPECT_EQ(test::modeOf(installed()), 0755u);
    EXPECT_EQ(record_.version(), (IndexPath{6, 0, 0, 1}));
    EXPECT_FALSE(fs::exists(home_.path() / "given"));
    EXPECT_EQ(chosenPath(), installed().string());
}

TEST_F(ResourcesCommand, SaysThatNobodyUsesWhatIsNotExecutable) {
    EXPECT_THAT(answer({"install", fileToGive(), kName, "6.0.0-1", kBundleId}),
                EndsWith("It is not executable, so no tool uses it.\n"));
    EXPECT_EQ(test::modeOf(installed()), 0644u);
}

TEST_F(ResourcesCommand, KeepsTheFileWhenAsked) {
    const std::string file = fileToGive();
    answer({"install", file, kName, "6.0.0-1", kBundleId, "--executable", "--keep"});
    EXPECT_EQ(contentOf(installed()), "new");
    EXPECT_EQ(contentOf(file), "new");
    EXPECT_EQ(test::modeOf(file), 0644u);
    for (const auto& entry : fs::directory_iterator(home_.runtime() / "com.korvane.utilia"))
        EXPECT_THAT(entry.path().filename().string(), Not(StartsWith("utiliactl-")));
}

TEST_F(ResourcesCommand, InstallsNothingUnderAMalformedVersion) {
    const std::string file = fileToGive();
    for (const char* version : {"5.1.2", "1.2.3.4.5", "newest", ""}) {
        const Answer given = run({"install", file, kName, version, kBundleId});
        EXPECT_EQ(given.status, 2) << version;
        EXPECT_EQ(given.out, "");
        EXPECT_THAT(given.err, StartsWith("utiliactl: VERSION: "));
    }
    EXPECT_TRUE(fs::exists(file));
    EXPECT_EQ(record_.path(), std::nullopt);
}

TEST_F(ResourcesCommand, SaysWhyAFileIsNotInstalled) {
    const std::string file = fileToGive();
    const std::string missing = (home_.path() / "missing").string();
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"install", missing, kName, "6.0.0-1", kBundleId},
          {"install", missing, kName, "6.0.0-1", kBundleId, "--keep"},
          {"install", file, "../escaped", "6.0.0-1", kBundleId},
          {"install", file, kName, "6.0.0-1", ".."},
          {"install", home_.path().string(), kName, "6.0.0-1", kBundleId, "--keep"}}) {
        const Answer given = run(arguments);
        EXPECT_EQ(given.status, 1);
        EXPECT_EQ(given.out, "");
        EXPECT_THAT(given.err, StartsWith("utiliactl: "));
    }
    EXPECT_THAT(run({"install", missing, kName, "6.0.0-1", kBundleId}).err,
                HasSubstr(missing + ": No such file or directory"));
    EXPECT_TRUE(fs::exists(file));
    EXPECT_FALSE(fs::exists(installed()));
}

TEST_F(ResourcesCommand, SaysWhenTheCopyIsInPlaceButCannotBeRecorded) {
    fs::create_directories(home_.groupContainer() / "Library");
    test::writeFile(home_.groupContainer() / "Library/Preferences", "no folder");
    const Answer given = run({"install", fileToGive(), kName, "6.0.0-1", kBundleId});
    EXPECT_EQ(given.status, 1);
    EXPECT_EQ(given.out, "");
    EXPECT_THAT(given.err, EndsWith("utiliactl: the copy is in its place, but its record cannot be "
                                    "stored\n"));
    EXPECT_EQ(contentOf(installed()), "new");
}

TEST_F(ResourcesCommand, AnswersWrongUsageWithStatus2) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{},
          {"nonsense"},
          {"list", "more"},
          {"path"},
          {"path", kName},
          {"version", kName},
          {"install"},
          {"install", "file", kName, "1.2.3-4"},
          {"install", "file", kName, "1.2.3-4", kBundleId, "--nonsense"}}) {
        const Answer given = run(arguments);
        EXPECT_EQ(given.status, 2);
        EXPECT_EQ(given.out, "");
        EXPECT_THAT(given.err, StartsWith("utiliactl: "));
    }
}

TEST_F(ResourcesCommand, ExplainsItself) {
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{"--help"},
                                                      {"list", "--help"},
                                                      {"path", "--help"},
                                                      {"version", "--help"},
                                                      {"install", "--help"}}) {
        EXPECT_THAT(answer(arguments), HasSubstr("Usage: utiliactl resources"));
    }
}

}  // namespace
}  // namespace utilia
