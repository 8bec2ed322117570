#include "Applications/utiliactl/FetchCommand.h"

#include <chrono>
#include <optional>
#include <ostream>
#include <utility>

#include "Applications/utiliactl/JsonText.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/RunLoop.h"
#include "Common/UtiliaCommon/Web/WebDataLoader.h"

namespace utilia::control {
namespace {

Result<Data> load(const std::string& url, double timeout) {
    WebDataLoader loader{std::chrono::duration<double>(timeout)};
    std::optional<Result<Data>> answer;
    loader.loadUrl(
        url, [&answer](Data data) { answer = std::move(data); },
        [&answer](const Error& error, const std::string&) { answer = error; });
    platform::RunLoop::mainRunLoop().runUntil(
        [&] { return answer.has_value() || !loader.downloadDescriptionTask(); },
        std::chrono::hours(24 * 365));
    if (!answer) return Error::url(URLErrorCode::Unknown, "the load cannot begin");
    return *std::move(answer);
}

}  // namespace

CLI::App* FetchCommand::declare(CLI::App& program) {
    CLI::App* const command =
        program.add_subcommand("fetch", "Loads a web resource, as the product does.");
    command->footer(
        "Only an answer with status 200 or 204 counts. Proxies are those of http_proxy, "
        "https_proxy, all_proxy and no_proxy, else those of the desktop.");
    command->add_option("URL", url_, "Of http or https")->required()->check(refuseEmpty);
    command
        ->add_option("--timeout", timeout_,
                     "How many seconds may pass without any data arriving (60)")
        ->check(CLI::Range(0.001, 604800.0));
    CLI::Option* const output = command->add_option(
        "--output", output_, "A file for the content, instead of standard output");
    output->check(refuseEmpty);
    command->add_flag("--json", json_, "Answer how much was loaded, as JSON")->needs(output);
    return command;
}

Result<void> FetchCommand::run(std::ostream& out) {
    const auto data = load(url_, timeout_);
    if (!data) {
        return Error{data.error().domain, data.error().code,
                     WebDataLoader::withoutCredentials(url_) + ": " + data.error().description +
                         " (" + data.error().domain + " " + std::to_string(data.error().code) +
                         ")"};
    }
    if (output_.empty()) {
        out.write(reinterpret_cast<const char*>(data->data()),
                  static_cast<std::streamsize>(data->size()));
        return {};
    }
    if (const auto written = platform::FileManager::writeToFile(output_, *data); !written)
        return written.error();
    if (json_)
        out << textOfJson({{"url", WebDataLoader::withoutCredentials(url_)},
                           {"size", data->size()},
                           {"output", output_}});
    return {};
}

}  // namespace utilia::control
