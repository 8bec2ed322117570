#include "Applications/Agent/Model/DeafTools.h"

#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace utilia::agent {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class DeafToolsTest : public testing::Test {
protected:
    void pass() {
        const auto look = look_;
        ASSERT_TRUE(look);
        look();
    }
    std::vector<std::string> told() { return std::exchange(told_, {}); }

    std::set<std::string> deaf_;
    std::vector<std::string> told_;
    std::function<void()> look_;  // null: nothing wakes the agent
    DeafTools tools_{{.isDeaf = [this](const std::string& tool) { return deaf_.contains(tool); },
                      .hearsAgain = [this](const std::string& tool) { told_.push_back(tool); },
                      .changed = [this] { told_.push_back("changed"); }},
                     [this](std::chrono::nanoseconds interval, std::function<void()> call) {
                         EXPECT_EQ(interval, DeafTools::kInterval);
                         look_ = std::move(call);
                         return Handle([this] { look_ = nullptr; });
                     }};
};

TEST_F(DeafToolsTest, AreLookedAtUntilTheyHearAgainAndNoLonger) {
    EXPECT_FALSE(look_);
    deaf_ = {"a", "b"};
    EXPECT_TRUE(tools_.hasNotTaken("a"));
    EXPECT_TRUE(tools_.hasNotTaken("a"));
    EXPECT_TRUE(tools_.hasNotTaken("b"));
    EXPECT_THAT(told(), ElementsAre("changed", "changed"));
    pass();
    EXPECT_THAT(told(), IsEmpty());
    deaf_ = {"b"};
    pass();
    EXPECT_THAT(told(), ElementsAre("changed", "a"));
    EXPECT_THAT(tools_.identifiers(), ElementsAre("b"));
    deaf_ = {};
    pass();
    EXPECT_THAT(told(), ElementsAre("changed", "b"));
    EXPECT_FALSE(look_);
}

TEST_F(DeafToolsTest, AreForgottenWhenTheyAreHeardOf) {
    deaf_ = {"a"};
    EXPECT_TRUE(tools_.hasNotTaken("a"));
    told();
    tools_.forget("a");
    tools_.forget("a");
    EXPECT_THAT(told(), ElementsAre("changed"));
    EXPECT_THAT(tools_.identifiers(), IsEmpty());
    EXPECT_FALSE(look_);
}

TEST_F(DeafToolsTest, AreNotThoseThatHaveEnded) {
    EXPECT_FALSE(tools_.hasNotTaken("a"));
    EXPECT_THAT(tools_.identifiers(), IsEmpty());
    EXPECT_THAT(told(), IsEmpty());
    EXPECT_FALSE(look_);
}

}  // namespace
}  // namespace utilia::agent
