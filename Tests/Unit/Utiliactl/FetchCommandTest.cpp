#include <nlohmann/json.hpp>

#include "Tests/Support/NginxServer.h"
#include "Tests/Unit/Utiliactl/ControlProgram.h"

namespace utilia {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

class FetchCommandTest : public test::ControlProgramTest {
protected:
    FetchCommandTest() {
        for (const char* name : {"http_proxy", "all_proxy", "ALL_PROXY", "XDG_CURRENT_DESKTOP"})
            unsetenv(name);
        std::ofstream(server_.root() / "page", std::ios::binary) << content_;
    }
    const test::NginxServer server_{"location /204 { return 204; } location /404 { return 404; }"};
    const std::string content_{"some\0bytes\n", 11};
};

TEST_F(FetchCommandTest, AnswersWhatItHasLoaded) {
    EXPECT_EQ(answer({"fetch", server_.url("/page")}), content_);
    EXPECT_EQ(answer({"fetch", server_.url("/204"), "--timeout", "2.5"}), "");
}

TEST_F(FetchCommandTest, PutsItIntoAFile) {
    const std::string file = home_.path() / "file";
    EXPECT_EQ(answer({"fetch", server_.url("/page"), "--output", file}), "");
    EXPECT_EQ(contentOf(file), content_);
    const json expected{{"url", server_.url("/page")}, {"size", 11}, {"output", file}};
    EXPECT_EQ(json::parse(answer({"fetch", server_.url("/page"), "--output", file, "--json"})),
              expected);
}

TEST_F(FetchCommandTest, SaysWhyNothingIsLoadedAndWritesNoFile) {
    const std::string file = home_.path() / "file";
    const std::string url = server_.url("/404");
    const std::string refused = refusal(1, {"fetch", url, "--output", file});
    EXPECT_THAT(refused,
                HasSubstr("Error loading web resource at " + url + ". HTTP status code: 404\n"));
    EXPECT_THAT(refused, HasSubstr("utiliactl: " + url + ": "));
    EXPECT_THAT(refused, HasSubstr("(NSURLErrorDomain -1014)\n"));
    EXPECT_FALSE(std::filesystem::exists(file));
    const std::string secret = "http://me:word@" + url.substr(7);
    EXPECT_THAT(refusal(1, {"fetch", secret}), testing::Not(HasSubstr("word")));
    EXPECT_THAT(refusal(1, {"fetch", "ftp://example.test/"}),
                HasSubstr("(NSURLErrorDomain -1002)\n"));
}

TEST_F(FetchCommandTest, SaysWhenTheFileCannotBeWritten) {
    const std::string file = home_.path() / "none" / "file";
    EXPECT_THAT(refusal(1, {"fetch", server_.url("/page"), "--output", file}), HasSubstr(file));
}

TEST_F(FetchCommandTest, WrongUsageIsAnsweredWithStatus2) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"fetch"},
          {"fetch", ""},
          {"fetch", "http://example.test/", "more"},
          {"fetch", "http://example.test/", "--timeout", "0"},
          {"fetch", "http://example.test/", "--timeout", "soon"},
          {"fetch", "http://example.test/", "--output", ""},
          {"fetch", "http://example.test/", "--json"}}) {
        EXPECT_THAT(refusal(2, arguments), StartsWith("utiliactl: "));
    }
}

}  // namespace
}  // namespace utilia
