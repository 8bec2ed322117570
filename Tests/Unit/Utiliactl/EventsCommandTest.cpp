#include <filesystem>
#include <fstream>

#include <nlohmann/json.hpp>

#include "Common/Platform/UserDefaults.h"
#include "Common/UtiliaCommon/CEP/EventLog.h"
#include "Tests/Support/PrivateMounts.h"
#include "Tests/Unit/Utiliactl/ControlProgram.h"

namespace utilia {
namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

class EventsCommandTest : public test::ControlProgramTest {
protected:
    std::filesystem::path logs() const { return home_.state() / "korvane-utilia/Library/Logs"; }
    std::filesystem::path log() const { return logs() / "krv.utilia.ceplog.xml"; }
    json shown() const { return json::parse(answer({"events", "show", "--json"})); }
};

TEST_F(EventsCommandTest, TellsWhereTheLogLies) {
    EXPECT_EQ(answer({"events", "path"}), log().string() + "\n");
    EXPECT_FALSE(std::filesystem::exists(log()));
}

TEST_F(EventsCommandTest, RefusesAnActionThatWouldSpoilTheDocument) {
    for (const std::string action : {"Weird <action>", "this & that", "\"quoted\""}) {
        EXPECT_THAT(refusal(2, {"events", "log", action}),
                    HasSubstr(" holds <, & or \", with which no report could be read"));
    }
    EXPECT_FALSE(std::filesystem::exists(log()));
    EXPECT_EQ(answer({"events", "log", "that's > all"}), "");
    EXPECT_EQ(shown()["events"][0]["action"], "that's > all");
}

TEST_F(EventsCommandTest, ShowsWhatItHasLogged) {
    EXPECT_EQ(answer({"events", "show"}), "There are no events.\n");
    EXPECT_EQ(shown(), (json{{"path", log()}, {"events", json::array()}}));
    EXPECT_EQ(answer({"events", "log", "Start"}), "");
    EXPECT_EQ(answer({"events", "log", "Export", "--options", R"({"format": "PDF & more"})",
                      "--details", R"({"pages": 3, "sizes": ["A4", {"width": 1.5}], "no": null})"}),
              "");
    json events = shown()["events"];
    ASSERT_EQ(events.size(), 2u);
    for (json& event : events) {
        EXPECT_EQ(event["timestamp"].get<std::string>().size(), 23u);
        event.erase("timestamp");
    }
    EXPECT_EQ(events[0], (json{{"toollocation", ""}, {"toolversion", ""}, {"action", "Start"}}));
    EXPECT_EQ(events[1],
              (json{{"toollocation", ""},
                    {"toolversion", ""},
                    {"action", "Export"},
                    {"options", {{"format", "PDF & more"}}},
                    {"details",
                     {{"pages", "3"}, {"sizes", {{"_0", "A4"}, {"_1", {{"width", "1.5"}}}}}}}}));
    const std::string table = answer({"events", "show"});
    EXPECT_THAT(table, StartsWith("TIME (UTC)"));
    EXPECT_THAT(table, HasSubstr("-     Export  options={\"format\":\"PDF & more\"} details={"));
}

TEST_F(EventsCommandTest, ShowsARecordThatNoParserAccepts) {
    // As an application may.
    ASSERT_EQ(CEPLogInit(), 0);
    ASSERT_EQ(CEPLogEvent("say \"x\"", nullptr, nullptr, nullptr), 0);
    const json events = shown()["events"];
    ASSERT_EQ(events.size(), 1u);
    EXPECT_THAT(events.at(0).at("record").get<std::string>(),
                HasSubstr("action=\"say \"x\"\"/>\n"));
    EXPECT_THAT(answer({"events", "show"}), HasSubstr("say"));
}

TEST_F(EventsCommandTest, ShowsNoPieceOfARecord) {
    answer({"events", "log", "Start"});
    std::ofstream(log(), std::ios::app) << "<event timestamp=\"2026-01-01 00:00:0";
    answer({"events", "log", "Stop"});
    const json events = shown()["events"];
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events.at(1).at("action"), "Stop");
}

TEST_F(EventsCommandTest, LogsNothingWhileReportingIsOff) {
    platform::UserDefaults::initWithDomain("com.korvane.utilia")->setObject(true, "CEPDisabled");
    EXPECT_THAT(refusal(1, {"events", "log", "Start"}), HasSubstr("switched off"));
    EXPECT_FALSE(std::filesystem::exists(log()));
}

TEST_F(EventsCommandTest, LogsNothingWhereTheAdministratorHasSwitchedReportingOff) {
    const test::PrivateMounts mounts;
    mounts.writeSettings(R"({"UsageReportingDisabled": true})");
    EXPECT_TRUE(mounts.run([&] {
        EXPECT_THAT(refusal(1, {"events", "log", "Start"}), HasSubstr("switched off"));
    }));
    EXPECT_FALSE(std::filesystem::exists(log()));
}

TEST_F(EventsCommandTest, LogsAPermanentStartAsAStart) {
    EXPECT_EQ(answer({"events", "log", "StartPermanent"}), "");
    EXPECT_EQ(shown().at("events").at(0).at("action"), "Start");
}

TEST_F(EventsCommandTest, RefusesWhatIsNoObject) {
    for (const char* text : {"[1]", "{", "", "1", "{\"a\": }"}) {
        EXPECT_THAT(refusal(2, {"events", "log", "Start", "--options", text}),
                    HasSubstr("--options"))
            << text;
        EXPECT_THAT(refusal(2, {"events", "log", "Start", "--details", text}),
                    HasSubstr("--details"))
            << text;
    }
    refusal(2, {"events", "log", ""});
    refusal(2, {"events", "log"});
    refusal(2, {"events"});
    EXPECT_FALSE(std::filesystem::exists(log()));
}

TEST_F(EventsCommandTest, SaysWhyItCannotLog) {
    std::filesystem::create_directories(log());
    const std::string reason = refusal(1, {"events", "log", "Start"});
    EXPECT_THAT(reason, HasSubstr(log().string()));
    EXPECT_THAT(reason, HasSubstr("-1051"));
    std::filesystem::remove_all(logs());
    std::ofstream(logs().string()) << "a file";
    EXPECT_THAT(refusal(1, {"events", "path"}), HasSubstr(logs().string()));
}

}  // namespace
}  // namespace utilia
