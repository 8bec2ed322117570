#include "Applications/Agent/Model/StandingMessages.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Applications/Agent/AgentTextKeys.h"

namespace utilia::agent {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Bus = Troubles::Bus;

TEST(StandingMessages, AreNoneWhereNothingIsAmiss) { EXPECT_THAT(standingMessages({}), IsEmpty()); }

TEST(StandingMessages, NameTheCauseThatThereIsNoStatusIcon) {
    EXPECT_THAT(standingMessages({.isWithoutPanel = true}),
                ElementsAre(StandingMessage{kNoTrayText, {}}));
    EXPECT_THAT(standingMessages({.bus = Bus::Missing, .isWithoutPanel = true}),
                ElementsAre(StandingMessage{kNoBusText, {}}));
    EXPECT_THAT(standingMessages({.bus = Bus::Lost}),
                ElementsAre(StandingMessage{kBusLostText, {}}));
}

TEST(StandingMessages, TellOfEverythingThatIsAmiss) {
    EXPECT_THAT(standingMessages({.bus = Bus::Lost,
                                  .unwritableFolder = "/home/x",
                                  .unresponsiveTools = {"Timer", "Clock"}}),
                ElementsAre(StandingMessage{kBusLostText, {}},
                            StandingMessage{kCannotKeepText, "/home/x"},
                            StandingMessage{kNotRespondingText, "Timer"},
                            StandingMessage{kNotRespondingText, "Clock"}));
}

}  // namespace
}  // namespace utilia::agent
