#pragma once

#include <array>
#include <string_view>

// Every text of the agent that a user reads. The English text is the key, under which Localization/Agent/LANGUAGE.po has
// the others.

namespace utilia::agent {

// The name of the product: not translated.
inline constexpr std::string_view kProductName = "Korvane Utilia";

// The menu.
inline constexpr std::string_view kShowWindowText = "Show Window";
inline constexpr std::string_view kOpenSettingsText = "Settings…";
inline constexpr std::string_view kQuitText = "Quit Korvane Utilia";
inline constexpr std::string_view kNoToolsText = "No tools are installed";

// What a tool is. %@: its name.
inline constexpr std::string_view kRestrictedToolText = "%@ (not allowed by your administrator)";
inline constexpr std::string_view kDamagedToolText = "%@ (damaged)";
inline constexpr std::string_view kMissingToolText = "%@ (not installed)";
inline constexpr std::string_view kRestrictedText = "Not allowed by your administrator";
inline constexpr std::string_view kDamagedText = "Damaged: install it again";
inline constexpr std::string_view kMissingText = "To be started, but not installed";
inline constexpr std::string_view kRunningText = "Running";
inline constexpr std::string_view kOffText = "Not running";
inline constexpr std::string_view kPermanentText = "Always shown";
inline constexpr std::string_view kActiveText = "Active";
// Between the parts of what is read aloud.
inline constexpr std::string_view kSeparatorText = ", ";

// The window. "&" stands before the letter that works with Alt; on one page each letter stands for one thing only.
inline constexpr std::string_view kToolListText = "Installed tools";
inline constexpr std::string_view kToolsText = "&Tools";
inline constexpr std::string_view kSettingsText = "S&ettings";
inline constexpr std::string_view kStartText = "&Start";
inline constexpr std::string_view kClickText = "&Click";
inline constexpr std::string_view kClickExplanationText =
    "The same as a click on it in the menu of the status icon. What happens then is the tool’s own "
    "affair.";
inline constexpr std::string_view kQuitToolText = "&Quit";
inline constexpr std::string_view kStartToolAtLoginText = "Start this tool at &login";
inline constexpr std::string_view kNoTrayText =
    "Your desktop shows no status icons. Your tools are in this window.";
inline constexpr std::string_view kNoBusText = "There is no session bus (D-Bus), so that no status "
                                               "icon can be shown. Your tools are in this window.";
inline constexpr std::string_view kBusLostText =
    "The session bus (D-Bus) is lost, and the status icon with it. Both are waited for; your tools "
    "are in this window.";
// %@: a folder.
inline constexpr std::string_view kCannotKeepText =
    "What you change is not kept: the folder %@ cannot be written.";
// %@: the name of a tool.
inline constexpr std::string_view kNotRespondingText = "%@ does not respond.";
inline constexpr std::string_view kCannotStartText = "%@ cannot be started.";
inline constexpr std::string_view kCannotQuitToolText = "%@ cannot be quit.";
inline constexpr std::string_view kSuggestionText = "You have not used %@ yet.";
inline constexpr std::string_view kTryText = "T&ry It";
inline constexpr std::string_view kNotNowText = "&Not Now";

// The settings.
inline constexpr std::string_view kGeneralText = "General";
inline constexpr std::string_view kOpenAtLoginText = "Open Korvane Utilia at &login";
inline constexpr std::string_view kSuggestToolsText = "&Suggest tools that I have not used";
inline constexpr std::string_view kUsageText = "Usage reporting";
inline constexpr std::string_view kShareUsageText = "&Report how I use the tools";
// In builds that send nothing.
inline constexpr std::string_view kRecordUsageText = "&Record how I use the tools";
inline constexpr std::string_view kUsageExplanationText =
    "Once a week a report of which tools were started and used is sent to the maker of the "
    "tools. The preview shows exactly what is in it.";
inline constexpr std::string_view kUsageByAdministratorText =
    "Your administrator has switched usage reporting off.";
inline constexpr std::string_view kUsageOffText =
    "Usage reporting is off. What was recorded before is sent once more, and then nothing. A tool "
    "that goes on running still notes each week that it does; that is sent only when usage "
    "reporting is on again.";
inline constexpr std::string_view kUsageNeverSentText =
    "This version never sends anything. What is recorded stays on this computer.";
inline constexpr std::string_view kPreviewText = "&Preview…";
inline constexpr std::string_view kPreviewTitleText = "What will be sent next";
inline constexpr std::string_view kRecordedTitleText = "What is recorded";
inline constexpr std::string_view kRecordedSoFarText = "What no report has taken yet";
inline constexpr std::string_view kNothingToSendText = "Nothing is recorded at the moment.";
inline constexpr std::string_view kOneMomentText = "One moment…";
inline constexpr std::string_view kTooManyReportsText =
    "As many reports wait as there can be. What is recorded now is lost with the next upload.";
// %@: a file or a folder.
inline constexpr std::string_view kCannotReadText = "%@ cannot be read.";
inline constexpr std::string_view kTooLargeText = "%@ is too large to be shown here.";
inline constexpr std::string_view kReportGoneText = "%@ is not there any more.";
inline constexpr std::string_view kSentText = "&What Was Sent…";
inline constexpr std::string_view kSentTitleText = "What was sent last";
inline constexpr std::string_view kSentDocumentText = "The report, word by word";
inline constexpr std::string_view kNothingSentText = "Nothing has been sent yet.";
inline constexpr std::string_view kSentUnderWayText = "on its way";
inline constexpr std::string_view kSentAcceptedText = "accepted";
inline constexpr std::string_view kSentRefusedText = "not accepted, will be sent again";
inline constexpr std::string_view kSentLeftText = "not accepted";
inline constexpr std::string_view kNoCopyText = "There is no copy of this report any more.";
inline constexpr std::string_view kCloseText = "&Close";
// %@: a version.
inline constexpr std::string_view kWhatIsNewText = "New in version %@";
inline constexpr std::string_view kNoDescriptionText =
    "There is no description of this version in your language or in English.";

inline constexpr std::array kAgentTexts{kShowWindowText,
                                        kOpenSettingsText,
                                        kQuitText,
                                        kNoToolsText,
                                        kRestrictedToolText,
                                        kDamagedToolText,
                                        kMissingToolText,
                                        kRestrictedText,
                                        kDamagedText,
                                        kMissingText,
                                        kRunningText,
                                        kOffText,
                                        kPermanentText,
                                        kActiveText,
                                        kSeparatorText,
                                        kToolListText,
                                        kToolsText,
                                        kSettingsText,
                                        kStartText,
                                        kClickText,
                                        kClickExplanationText,
                                        kQuitToolText,
                                        kStartToolAtLoginText,
                                        kNoTrayText,
                                        kNoBusText,
                                        kBusLostText,
                                        kCannotKeepText,
                                        kNotRespondingText,
                                        kCannotStartText,
                                        kCannotQuitToolText,
                                        kSuggestionText,
                                        kTryText,
                                        kNotNowText,
                                        kGeneralText,
                                        kOpenAtLoginText,
                                        kSuggestToolsText,
                                        kUsageText,
                                        kShareUsageText,
                                        kRecordUsageText,
                                        kUsageExplanationText,
                                        kUsageOffText,
                                        kUsageNeverSentText,
                                        kUsageByAdministratorText,
                                        kPreviewText,
                                        kPreviewTitleText,
                                        kRecordedTitleText,
                                        kRecordedSoFarText,
                                        kNothingToSendText,
                                        kOneMomentText,
                                        kTooManyReportsText,
                                        kCannotReadText,
                                        kTooLargeText,
                                        kReportGoneText,
                                        kSentText,
                                        kSentTitleText,
                                        kSentDocumentText,
                                        kNothingSentText,
                                        kSentUnderWayText,
                                        kSentAcceptedText,
                                        kSentRefusedText,
                                        kSentLeftText,
                                        kNoCopyText,
                                        kCloseText,
                                        kWhatIsNewText,
                                        kNoDescriptionText};

}  // namespace utilia::agent
