#include "Common/UtiliaCommon/StartUpVerdict.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Common/UtiliaCommon/UtiliaCommon.h"

namespace utilia {
namespace {

constexpr ToolRestriction kAllowed{.isAllowed = true, .isInSet = true, .isRestricted = false};
constexpr ToolRestriction kForbidden{.isAllowed = false, .isInSet = true, .isRestricted = true};

// The verdict, and which checks were asked for it: "r" the restriction, "n" the needs.
struct Judged {
    StartUpVerdict verdict;
    std::string asked;
    bool operator==(const Judged&) const = default;
};

Judged judge(const std::vector<std::string>& arguments, ToolRestriction restriction,
             bool requirementsAreMet) {
    Judged judged{};
    judged.verdict = startUpVerdict(arguments, {.restriction =
                                                    [&] {
                                                        judged.asked += 'r';
                                                        return restriction;
                                                    },
                                                .requirementsAreMet =
                                                    [&] {
                                                        judged.asked += 'n';
                                                        return requirementsAreMet;
                                                    }});
    return judged;
}

TEST(StartUpVerdict, RunsWhatPassesBothChecksInTheirOrder) {
    EXPECT_EQ(judge({"timer"}, kAllowed, true), (Judged{StartUpVerdict::Run, "rn"}));
    EXPECT_EQ(judge({}, kAllowed, true), (Judged{StartUpVerdict::Run, "rn"}));
    EXPECT_EQ(judge({"timer"}, kAllowed, false),
              (Judged{StartUpVerdict::RequirementsNotMet, "rn"}));
}

TEST(StartUpVerdict, AsksNothingMoreOfWhatIsRestricted) {
    for (const bool met : {false, true})
        EXPECT_EQ(judge({"timer"}, kForbidden, met), (Judged{StartUpVerdict::Restricted, "r"}));
}

TEST(StartUpVerdict, RestrictsOnlyWhatTheCatalogueHasAndTheWhiteListLeavesOut) {
    for (int bits = 0; bits < 8; ++bits) {
        SCOPED_TRACE(bits);
        const ToolRestriction answer{(bits & 1) != 0, (bits & 2) != 0, (bits & 4) != 0};
        const bool isRestricted = !answer.isAllowed && answer.isInSet && answer.isRestricted;
        EXPECT_EQ(judge({"timer"}, answer, true), isRestricted
                                                      ? (Judged{StartUpVerdict::Restricted, "r"})
                                                      : (Judged{StartUpVerdict::Run, "rn"}));
    }
}

TEST(StartUpVerdict, AsksNothingOfWhatIsShutOff) {
    const std::vector<std::vector<std::string>> calls = {{"timer", "--turn-off"},
                                                         {"timer", "a", "--turn-off", "b"},
                                                         {"timer", "--turn-off", "--turn-off"},
                                                         {"--turn-off"}};
    for (const auto& arguments : calls)
        EXPECT_EQ(judge(arguments, kForbidden, false), (Judged{StartUpVerdict::ShutOff, ""}));
}

TEST(StartUpVerdict, TakesOnlyTheWholeArgumentForTheSwitch) {
    for (const char* argument : {"--turn-off ", " --turn-off", "--turn-off=yes", "--turn-offf",
                                 "--turn-of", "--TURN-OFF", "-turn-off", "turn-off", ""}) {
        SCOPED_TRACE(argument);
        EXPECT_EQ(judge({"timer", argument}, kAllowed, true), (Judged{StartUpVerdict::Run, "rn"}));
    }
}

TEST(UtiliaCommon, IsNotMadeInProgramsThatCarryTheFrameworksObjects) {
    EXPECT_EQ(UtiliaCommon::utiliaCommon(), nullptr);
}

TEST(UtiliaCommon, KnowsNoHelperOfAWrongName) {
    const auto agent = UtiliaCommon::initForAgent();
    EXPECT_FALSE(agent->pathForAuxiliaryExecutable("no helper of this name"));
    EXPECT_FALSE(agent->pathForAuxiliaryExecutable(""));
    EXPECT_FALSE(agent->pathForAuxiliaryExecutable("../Linux"));
}

}  // namespace
}  // namespace utilia
