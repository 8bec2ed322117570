#include "Applications/utiliactl/DescriptionsCommand.h"

#include <cerrno>
#include <fstream>
#include <iostream>
#include <iterator>
#include <ostream>

#include "Applications/utiliactl/JsonText.h"
#include "Applications/utiliactl/PlainText.h"
#include "Common/UtiliaCommon/Auxiliary/CommonAuxiliary.h"
#include "Common/UtiliaCommon/LoginItems/UtiliaToolLauncher.h"
#include "Common/UtiliaCommon/Resources/VersionManager.h"

namespace utilia::control {
namespace {

// Why the text is none; "" when it is one.
std::string refuseVersion(const std::string& text) {
    if (VersionManager::versionWithString(text)) return "";
    return inQuotes(text) + " is no version of four numbers, such as 5.1.2-3456";
}

std::string refuseLanguageAndText(const std::string& text) {
    const std::size_t sign = text.find('=');
    if (sign != std::string::npos && sign > 0) return "";
    return inQuotes(text) + " is no LANGUAGE=TEXT, such as en=Faster";
}

Error noTexts(const std::string& file, const std::string& why) {
    return Error::utilia(UtiliaErrorCode::Refused, file + ": " + why);
}

Result<Dictionary> textsOfFile(const std::string& file) {
    std::ifstream opened;
    errno = 0;
    if (file != "-") opened.open(file, std::ios::binary);
    std::istream& stream = file == "-" ? std::cin : opened;
    const std::string content(std::istreambuf_iterator<char>(stream), {});
    if (stream.bad() || (file != "-" && !opened.is_open()))
        return Error::posix(errno, "read", file);
    const Json parsed = Json::parse(content, nullptr, false);
    if (parsed.is_discarded()) return noTexts(file, "is not JSON");
    if (!parsed.is_object()) return noTexts(file, "is no object of languages and texts");
    Dictionary texts;
    for (const auto& [language, text] : parsed.items()) {
        if (!text.is_string()) return noTexts(file, inQuotes(language) + " is no text");
        texts.set(language, text.get<std::string>());
    }
    return texts;
}

Dictionary textsOfArguments(const std::vector<std::string>& arguments) {
    Dictionary texts;
    for (const std::string& argument : arguments) {
        const std::size_t sign = argument.find('=');
        texts.set(argument.substr(0, sign), argument.substr(sign + 1));
    }
    return texts;
}

std::string reportForm(const std::string& version) {
    return VersionManager::versionToStringReportForm(VersionManager::versionWithString(version));
}

std::optional<Dictionary> storedTexts(const std::string& version) {
    const auto all = UtiliaToolLauncher::getDefaults()->dictionaryForKey(kUpdateDescriptionsKey);
    return all ? all->dictionary(reportForm(version)) : std::nullopt;
}

}  // namespace

CLI::App* DescriptionsCommand::declare(CLI::App& program) {
    CLI::App* const command = program.add_subcommand(
        "descriptions", "Shows and changes what the versions of the product bring.");
    command->require_subcommand(1);
    const auto addVersion = [this](CLI::App* subcommand) {
        subcommand->add_option("VERSION", version_, "Such as 5.1.2-3456")
            ->required()
            ->check(refuseVersion);
    };

    CLI::App* const save =
        command->add_subcommand("save", "Replaces the texts of a version, in all languages.");
    addVersion(save);
    CLI::Option_group* const source = save->add_option_group("Texts");
    source->add_option("--language", texts_, "LANGUAGE=TEXT, such as en=Faster; may be repeated")
        ->type_name("LANGUAGE=TEXT")
        ->check(refuseLanguageAndText)
        ->take_all();
    source->add_option("--json", file_, "A file with an object of languages and texts; - is stdin")
        ->type_name("FILE")
        ->check(refuseEmpty);
    source->require_option(1);
    save->callback([this] { chosen_ = &DescriptionsCommand::save; });

    CLI::App* const show =
        command->add_subcommand("show", "Shows the text of a version in your language.");
    show->footer("Without a text in your language the English one is shown, as the agent does.");
    addVersion(show);
    CLI::Option* const language =
        show->add_option("--language", language_, "The text in exactly this language");
    language->check(refuseEmpty);
    show->add_flag("--json", json_, "Answer the texts in all languages, as JSON")
        ->excludes(language);
    show->callback([this] { chosen_ = &DescriptionsCommand::show; });

    CLI::App* const remove = command->add_subcommand("remove", "Removes the texts of a version.");
    addVersion(remove);
    remove->callback([this] { chosen_ = &DescriptionsCommand::remove; });
    return command;
}

Result<void> DescriptionsCommand::run(std::ostream& out) { return (this->*chosen_)(out); }

Result<void> DescriptionsCommand::save(std::ostream&) const {
    if (file_.empty()) return replace(textsOfArguments(texts_));
    const auto texts = textsOfFile(file_);
    if (!texts) return texts.error();
    return replace(*texts);
}

Result<void> DescriptionsCommand::remove(std::ostream&) const { return replace(std::nullopt); }

Result<void> DescriptionsCommand::replace(const std::optional<Dictionary>& texts) const {
    CommonAuxiliary::saveUpdateDescription(texts, VersionManager::versionWithString(version_));
    if (storedTexts(version_) == texts) return {};
    // What is logged on the way says why.
    return Error::utilia(UtiliaErrorCode::Unavailable, "the descriptions cannot be stored");
}

Result<void> DescriptionsCommand::show(std::ostream& out) const {
    const auto texts = storedTexts(version_);
    if (!texts) {
        return Error::utilia(UtiliaErrorCode::NotFound,
                             "version " + reportForm(version_) + " has no description");
    }
    if (json_) {
        out << textOfJson(jsonFromValue(*texts));
        return {};
    }
    const auto text = language_.empty() ? CommonAuxiliary::getLocalizedUpdateDescriptionForVersion(
                                              VersionManager::versionWithString(version_))
                                        : texts->string(language_);
    if (!text) {
        return Error::utilia(
            UtiliaErrorCode::NotFound,
            "version " + reportForm(version_) + " has no description in " +
                (language_.empty() ? "your language, nor in English" : inQuotes(language_)));
    }
    out << *text << '\n';
    return {};
}

}  // namespace utilia::control
