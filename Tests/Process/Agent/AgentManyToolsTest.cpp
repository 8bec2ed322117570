#include <algorithm>
#include <chrono>

#include "Common/Platform/RunLoop.h"
#include "Common/UtiliaCommon/AdminSettings/ToolSets.h"
#include "Tests/Process/Agent/AgentFixture.h"

// The agent with as many tools as the product has.

namespace utilia::agent {
namespace {

using test::RecordingPort;
using test::TestBundle;
using testing::HasSubstr;

constexpr std::size_t kTools = 50;

// How often the threads of a process were woken so far.
long wakeUps(pid_t process) {
    long sum = 0;
    const std::filesystem::path tasks = "/proc/" + std::to_string(process) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks)) {
        std::ifstream file(task.path() / "status");
        for (std::string line; std::getline(file, line);) {
            if (line.starts_with("voluntary_ctxt_switches:")) sum += std::stol(line.substr(24));
        }
    }
    return sum;
}

// Fifty tools of the catalogue, installed and running, in the agent's menu.
class AgentManyToolsTest : public AgentApplicationTest {
protected:
    void SetUp() override {
        startBus();
        for (const std::string& identifier :
             ToolSets::createSharedInstance()->currentUnrestrictedToolSet()) {
            if (tools_.size() == kTools) break;
            const std::string name = identifier.substr(identifier.rfind('.') + 1);
            tools_.push_back(std::make_unique<TestBundle>(
                home_, TestBundle::Options{.name = name,
                                           .bundleIdentifier = identifier,
                                           .folder = home_.path() / "Tools",
                                           .copy = timer_.program()}));
            install(*tools_.back());
            ports_.push_back(std::make_unique<RecordingPort>(portOf(*tools_.back())));
        }
        ASSERT_EQ(tools_.size(), kTools);
        panel_ = startPanel();
        agent_ = startAgent(offscreen());
        expectItem(panel_, agent_);
        for (const auto& tool : tools_) sayStatus(*tool, 2);
        tellTexts("ready");
        ASSERT_TRUE(showsEverywhere("ready"));
    }

    void tellTexts(const std::string& text) {
        for (const auto& tool : tools_) speak(*tool, 108, {text});
    }
    bool showsEverywhere(const std::string& text) {
        return test::eventually([&] {
            const std::string menu = ask(panel_, "menu");
            std::size_t shown = 0;
            for (std::size_t at = menu.find(" " + text + " [checkmark]"); at != std::string::npos;
                 at = menu.find(" " + text + " [checkmark]", at + 1))
                ++shown;
            return shown == kTools;
        });
    }

    std::vector<std::unique_ptr<TestBundle>> tools_;
    std::vector<std::unique_ptr<RecordingPort>> ports_;
    test::ChildProcess panel_;
    test::ChildProcess agent_;
};

TEST_F(AgentManyToolsTest, IsNotWokenWhileNothingChanges) {
    long before = -1;
    const auto isWokenFor = [&](std::chrono::milliseconds time) {
        before = wakeUps(agent_.pid());
        platform::RunLoop::currentRunLoop().runFor(time);
        return wakeUps(agent_.pid()) != before;
    };
    // What its start left to be done may still come, such as the end of threads that nothing needs any more.
    ASSERT_TRUE(test::eventually([&] { return !isWokenFor(std::chrono::milliseconds(1500)); }));
    EXPECT_TRUE(test::eventually([&] { return !isWokenFor(std::chrono::seconds(7)); }))
        << "longer than a connection may be silent";
    EXPECT_TRUE(agent_.isRunning());
}

TEST_F(AgentManyToolsTest, GathersABurstOfChangesToFewUpdatesOfTheMenu) {
    using Clock = std::chrono::steady_clock;
    constexpr int kRounds = 10;  // each of all tools
    ask(panel_, "changes");
    const auto begin = Clock::now();
    for (int round = 1; round <= kRounds; ++round) tellTexts(std::to_string(round));
    ASSERT_TRUE(showsEverywhere(std::to_string(kRounds)));
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begin).count();

    const std::string changes = ask(panel_, "changes");
    EXPECT_THAT(changes, testing::Not(HasSubstr("layout")));
    const auto updates = static_cast<long>(std::count(changes.begin(), changes.end(), ';')) + 1;
    EXPECT_THAT(changes, HasSubstr("items"));
    // However long it took to say all that: ten updates a second are the most.
    EXPECT_LE(updates, milliseconds / 100 + 1) << changes;
}

}  // namespace
}  // namespace utilia::agent
