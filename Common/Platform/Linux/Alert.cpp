#include "Common/Platform/Alert.h"

#include <exception>

#include "Common/Logging/Log.h"
#include "Common/Platform/ApplicationName.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/Linux/AlertQuestion.h"
#include "Common/Platform/Linux/AlertTerminal.h"
#include "Common/Platform/Linux/AlertWindow.h"

namespace utilia::platform {
namespace {

AlertQuestion questionOf(const Alert& alert) {
    const Bundle* const framework = Bundle::frameworkBundle();
    AlertQuestion question;
    question.style = alert.alertStyle();
    question.language = framework ? framework->preferredLocalization() : "en";
    question.title = displayableText(applicationName(), kAlertTitleLimit);
    question.message = displayableText(alert.messageText(), kAlertMessageLimit);
    for (const std::string& title : alert.buttons()) {
        question.buttons.push_back(displayableText(title, kAlertTitleLimit));
    }
    if (question.buttons.empty()) {
        question.buttons.push_back(framework ? framework->localizedStringForKey("OK") : "OK");
    }
    return question;
}

Result<std::size_t> ask(const AlertQuestion& question) {
    auto inWindow = askInAlertWindow(question);
    if (inWindow || !inWindow.error().is(UtiliaErrorCode::Unavailable)) return inWindow;
    auto onTerminal = askOnTerminal(question);
    if (onTerminal) return onTerminal;
    return onTerminal.error().withContext(inWindow.error().description);
}

}  // namespace

int Alert::runModal() const noexcept {
    const std::size_t last = buttons_.empty() ? 0 : buttons_.size() - 1;
    std::size_t chosen = last;
    try {
        const AlertQuestion question = questionOf(*this);
        const auto answer = ask(question);
        if (answer) {
            chosen = *answer;
        } else {
            KULogVariadic("Alert: \"%@\" is taken for the answer to \"%@\": %@",
                          question.buttons.back(), question.message, answer.error());
        }
    } catch (const std::exception& error) {
        KULogVariadic("Alert: the last button is taken for the answer: %@", error.what());
    }
    return NSAlertFirstButtonReturn + static_cast<int>(chosen);
}

}  // namespace utilia::platform
