#include "Applications/utiliactl/PortNameCommand.h"

#include <ostream>

#include "Common/Platform/Bundle.h"
#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"

namespace utilia::control {

CLI::App* PortNameCommand::declare(CLI::App& program) {
    CLI::App* const command =
        program.add_subcommand("port-name", "Tells the name of a tool's port.");
    command->footer(
        "Of a bundle that exists, links in its path are resolved and its own canonical\n"
        "name is used; any other path is taken as it stands.");
    command->add_option("BUNDLE_PATH", bundlePath_, "The tool's bundle, NAME.app")->required();
    command
        ->add_option("--canonical", canonicalName_,
                     "The canonical name, instead of the bundle's own")
        ->type_name("NAME");
    return command;
}

Result<void> PortNameCommand::run(std::ostream& out) {
    if (bundlePath_.empty())
        return Error::utilia(UtiliaErrorCode::Refused, "an empty path names no bundle");
    std::string path = bundlePath_;
    while (path.size() > 1 && path.ends_with('/')) path.pop_back();
    std::optional<std::string> canonicalName = canonicalName_;
    if (const auto bundle = platform::Bundle::bundleWithPath(path);
        bundle && !bundle->infoDictionary().empty()) {
        path = bundle->bundlePath();
        const auto capabilities = bundle->infoDictionary().dictionary("ToolCapabilities");
        if (!canonicalName && capabilities) canonicalName = capabilities->string("CanonicalName");
    }
    out << toolPortName(canonicalToolPath(path, canonicalName)) << '\n';
    return {};
}

}  // namespace utilia::control
