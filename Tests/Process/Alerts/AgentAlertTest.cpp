#include "Common/UtiliaCommon/AgentAlert.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Tests/Process/Alerts/AskingRole.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/ChildScript.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"

// What the agent's alert says, in tools with other names and for users with other languages.

namespace utilia {
namespace {

using test::ChildProcessOptions;
using test::TemporaryHome;
using test::TestBundle;
using testing::ElementsAre;

UTILIA_CHILD_ROLE(tellAgentAlert) {
    const AgentAlert alert;
    std::vector<std::string> fields{std::to_string(static_cast<int>(alert.alertStyle())),
                                    alert.messageText()};
    fields.insert(fields.end(), alert.buttons().begin(), alert.buttons().end());
    self.say(test::joinFields(fields));
    return 0;
}

std::vector<std::string> alertOf(const TestBundle& bundle, const std::string& language) {
    ChildProcessOptions options;
    options.environment = test::environmentWithLanguage(language);
    auto tool = bundle.role("tellAgentAlert", {}, options);
    return test::splitFields(tool.waitForLine().value_or("nothing"));
}

TEST(AgentAlert, IsInformationalAndOffersToLaunchFirst) {
    const TemporaryHome home;
    EXPECT_THAT(
        alertOf(TestBundle(home), "en"),
        ElementsAre(
            "1",
            "Korvane Utilia is required for Sample Tool to function properly. Would you like to "
            "launch Korvane Utilia?",
            "Launch Korvane Utilia", "Quit"));
}

TEST(AgentAlert, SpeaksTheUsersLanguage) {
    const TemporaryHome home;
    const TestBundle bundle(home);
    const std::vector<std::string> expected[] = {
        {"de",
         "Korvane Utilia wird benötigt, damit Sample Tool richtig funktioniert. Möchten Sie "
         "Korvane Utilia "
         "starten?",
         "Korvane Utilia starten", "Beenden"},
        {"fr",
         "Korvane Utilia est nécessaire au bon fonctionnement de Sample Tool. Voulez-vous lancer "
         "Korvane "
         "Utilia\u00a0?",
         "Lancer Korvane Utilia", "Quitter"},
        {"es",
         "Se necesita Korvane Utilia para que Sample Tool funcione correctamente. ¿Desea iniciar "
         "Korvane "
         "Utilia?",
         "Iniciar Korvane Utilia", "Salir"},
        {"pl",
         "Sample Tool do prawidłowego działania wymaga programu Korvane Utilia. Czy uruchomić "
         "program Korvane "
         "Utilia?",
         "Uruchom Korvane Utilia", "Zakończ"},
        {"ar", "يتطلب عمل Sample Tool بشكل صحيح وجود Korvane Utilia. هل تريد تشغيل Korvane Utilia؟",
         "تشغيل Korvane Utilia", "إنهاء"},
        {"ja",
         "Sample Toolが正しく動作するにはKorvane Utiliaが必要です。Korvane Utiliaを起動しますか?",
         "Korvane Utiliaを起動", "終了"},
    };
    for (const auto& texts : expected) {
        EXPECT_THAT(alertOf(bundle, texts[0]), ElementsAre("1", texts[1], texts[2], texts[3]));
    }
}

TEST(AgentAlert, NamesTheToolAsTheUserKnowsIt) {
    const std::pair<Dictionary, const char*> cases[] = {
        {{}, "Tool 1.5 beta"},
        {{{"CFBundleDisplayName", "Timer"}}, "Timer"},
        {{{"CFBundleDisplayName", "Timer 2.0"}}, "Timer 2.0"},
        {{{"CFBundleDisplayName", "%@%s & <b>"}}, "%@%s & <b>"},
    };
    for (const auto& [info, name] : cases) {
        const TemporaryHome home;
        const TestBundle bundle(home, {.name = "Tool 1.5 beta", .info = info});
        EXPECT_EQ(alertOf(bundle, "en").at(1),
                  "Korvane Utilia is required for " + std::string(name) +
                      " to function properly. Would you like to launch Korvane Utilia?");
    }
}

}  // namespace
}  // namespace utilia
