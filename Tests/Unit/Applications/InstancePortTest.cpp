#include "Common/Platform/Linux/InstancePort.h"

#include "Common/Platform/RunLoop.h"
#include "Tests/Support/RecordingPort.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"

namespace utilia::platform {
namespace {

using test::RecordingPort;
using test::TemporaryHome;
using test::TestLog;
using testing::ElementsAre;
using Arguments = std::vector<std::string>;

constexpr std::chrono::seconds kPatience{60};

Data bytes(std::string_view text) { return {text.begin(), text.end()}; }

TEST(InstancePortName, DependsOnIdentifierAndPath) {
    const std::string name = InstancePort::nameForBundle("com.korvane.utilia.x", "/a/X.app");
    EXPECT_EQ(name.substr(0, 25), "com.korvane.utilia.x.app.");
    EXPECT_EQ(InstancePort::nameForBundle("id", "/opt/korvane/Sample Tool.app"),
              "id.app.881dedf6b5df6647");
    EXPECT_NE(name, InstancePort::nameForBundle("com.korvane.utilia.x", "/b/X.app"));
    EXPECT_NE(name, InstancePort::nameForBundle("com.korvane.utilia.y", "/a/X.app"));
    EXPECT_EQ(name, InstancePort::nameForBundle("com.korvane.utilia.x", "/a/X.app"));
}

TEST(InstancePortName, TellsLongPathsApartWhereverTheyDiffer) {
    const std::string left = "/" + std::string(400, 'a') + "/X.app";
    for (std::size_t i = 1; i < left.size(); i += 7) {
        std::string right = left;
        right[i] = 'b';
        EXPECT_NE(InstancePort::nameForBundle("id", left), InstancePort::nameForBundle("id", right))
            << i;
    }
}

TEST(InstancePortArguments, AreOneComponent) {
    EXPECT_EQ(*InstancePort::encode({}), bytes(""));
    EXPECT_EQ(*InstancePort::encode({"a", "", "b c"}), bytes(std::string_view("a\0\0b c\0", 7)));
}

TEST(InstancePortArguments, ReadBackAsWritten) {
    for (const Arguments& arguments :
         {Arguments{}, Arguments{""}, Arguments{"", ""}, Arguments{"--show-ui"},
          Arguments{"ü", "\xff not UTF-8", "a\nb"}, Arguments(InstancePort::kMaximumArguments, "x"),
          Arguments{std::string(InstancePort::kMaximumSize - 1, 'x')}}) {
        const auto encoded = InstancePort::encode(arguments);
        ASSERT_TRUE(encoded);
        EXPECT_EQ(InstancePort::decode(*encoded), arguments);
    }
}

TEST(InstancePortArguments, BeyondTheLimitsAreRefusedByTheSender) {
    for (const Arguments& arguments :
         {Arguments{std::string("a\0b", 3)}, Arguments(InstancePort::kMaximumArguments + 1, "x"),
          Arguments{std::string(InstancePort::kMaximumSize, 'x')}}) {
        const auto encoded = InstancePort::encode(arguments);
        ASSERT_FALSE(encoded);
        EXPECT_TRUE(encoded.error().is(UtiliaErrorCode::Refused));
    }
}

TEST(InstancePortArguments, OfWrongFormAreRefusedByTheReceiver) {
    EXPECT_EQ(InstancePort::decode(bytes("no end")), std::nullopt);
    EXPECT_EQ(InstancePort::decode(bytes(std::string_view("a\0b", 3))), std::nullopt);
    EXPECT_EQ(InstancePort::decode(Data(InstancePort::kMaximumArguments + 1, 0)), std::nullopt);
    EXPECT_EQ(InstancePort::decode(Data(InstancePort::kMaximumSize + 1, 0)), std::nullopt);
}

TEST(InstancePort, TakesWhatIsHandedOver) {
    const TemporaryHome home;
    std::vector<Arguments> reopened;
    const auto port = InstancePort::claim(
        "sample", [&](const Arguments& arguments) { reopened.push_back(arguments); });
    ASSERT_NE(port, nullptr);
    EXPECT_TRUE(InstancePort::handOver("sample", {"--flag", "value"}, kPatience));
    EXPECT_TRUE(InstancePort::handOver("sample", {}, kPatience));
    EXPECT_TRUE(
        RunLoop::currentRunLoop().runUntil([&] { return reopened.size() == 2; }, kPatience));
    EXPECT_THAT(reopened, ElementsAre(Arguments{"--flag", "value"}, Arguments{}));
}

TEST(InstancePort, HasOneHolderUntilItEnds) {
    const TemporaryHome home;
    auto first = InstancePort::claim("sample", [](const Arguments&) {});
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(InstancePort::claim("sample", [](const Arguments&) {}), nullptr);
    first.reset();
    EXPECT_NE(InstancePort::claim("sample", [](const Arguments&) {}), nullptr);
}

TEST(InstancePort, HandingOverToNobodyIsNotFound) {
    const TemporaryHome home;
    const auto handed = InstancePort::handOver("sample", {"x"}, kPatience);
    ASSERT_FALSE(handed);
    EXPECT_TRUE(handed.error().is(UtiliaErrorCode::NotFound));
    EXPECT_EQ(handed.error().description, "sample: nobody holds this port");
}

TEST(InstancePort, MayEndInsideItsReopen) {
    const TemporaryHome home;
    std::unique_ptr<InstancePort> port;
    bool ended = false;
    port = InstancePort::claim("sample", [&](const Arguments&) {
        port.reset();
        ended = true;
    });
    ASSERT_TRUE(InstancePort::handOver("sample", {}, kPatience));
    EXPECT_TRUE(RunLoop::currentRunLoop().runUntil([&] { return ended; }, kPatience));
}

TEST(InstancePort, DropsMessagesOfWrongFormWithOneLogLineEach) {
    const TemporaryHome home;
    std::vector<Arguments> reopened;
    const auto port = InstancePort::claim(
        "sample", [&](const Arguments& arguments) { reopened.push_back(arguments); });
    const TestLog log;
    EXPECT_TRUE(RecordingPort::send("sample", 1, {"no end"}));
    EXPECT_TRUE(RecordingPort::send("sample", 1, {}));
    EXPECT_TRUE(RecordingPort::send("sample", 2, {std::string("other\0", 6)}));
    EXPECT_TRUE(RecordingPort::send("sample", 1, {std::string("good\0", 5)}));
    EXPECT_TRUE(RunLoop::currentRunLoop().runUntil([&] { return !reopened.empty(); }, kPatience));
    EXPECT_THAT(reopened, ElementsAre(Arguments{"good"}));
    EXPECT_THAT(log.lines(), ElementsAre("Application: a reopen message of wrong form is dropped",
                                         "Application: a reopen message of wrong form is dropped"));
}

}  // namespace
}  // namespace utilia::platform
