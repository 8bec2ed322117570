#include "Applications/utiliactl/ImageCommand.h"

#include <algorithm>
#include <array>
#include <ostream>
#include <string_view>
#include <vector>

#include "Applications/utiliactl/PlainText.h"
#include "Applications/utiliactl/TerminalProgress.h"
#include "Common/Foundation/PathFunctions.h"
#include "Common/Platform/FileManager.h"
#include "Common/UtiliaCommon/Auxiliary/ImageExport.h"

namespace utilia::control {
namespace {

using platform::BitmapImageFileType;

struct Format {
    std::string_view name;  // of --type
    BitmapImageFileType type;
    std::array<std::string_view, 2> extensions;  // in lower case
};

constexpr Format kFormats[] = {
    {"tiff", BitmapImageFileType::Tiff, {"tiff", "tif"}},
    {"bmp", BitmapImageFileType::Bmp, {"bmp", "bmp"}},
    {"gif", BitmapImageFileType::Gif, {"gif", "gif"}},
    {"jpeg", BitmapImageFileType::Jpeg, {"jpeg", "jpg"}},
    {"png", BitmapImageFileType::Png, {"png", "png"}},
    {"jp2", BitmapImageFileType::Jpeg2000, {"jp2", "jp2"}},
};

std::vector<std::string> formatNames() {
    std::vector<std::string> names;
    for (const Format& format : kFormats) names.emplace_back(format.name);
    return names;
}

std::string extensionOf(const std::string& path) {
    std::string extension = pathExtension(path);
    std::transform(extension.begin(), extension.end(), extension.begin(), [](char letter) {
        return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
    });
    return extension;
}

const Format* formatNamed(std::string_view name) {
    const auto* const found =
        std::find_if(std::begin(kFormats), std::end(kFormats),
                     [name](const Format& format) { return format.name == name; });
    return found == std::end(kFormats) ? nullptr : found;
}

const Format* formatOfFile(const std::string& path) {
    const std::string extension = extensionOf(path);
    const auto* const found =
        std::find_if(std::begin(kFormats), std::end(kFormats), [&extension](const Format& format) {
            return std::find(format.extensions.begin(), format.extensions.end(), extension) !=
                   format.extensions.end();
        });
    return found == std::end(kFormats) ? nullptr : found;
}

}  // namespace

CLI::App* ImageCommand::declare(CLI::App& program) {
    CLI::App* const command =
        program.add_subcommand("image", "Writes an image in another format, or as PDF pages.");
    command->footer(
        "Reads TIFF, BMP, GIF, JPEG, PNG and JPEG 2000. Without --type the name of OUTPUT tells "
        "the "
        "format: .tiff, .bmp, .gif, .jpeg, .png, .jp2, or .pdf, where a pixel becomes a point.");
    command->add_option("INPUT", input_, "The image")->required()->check(refuseEmpty);
    command->add_option("OUTPUT", output_, "The file to write; one that exists is overwritten")
        ->required()
        ->check(refuseEmpty);
    CLI::Option* const type =
        command->add_option("--type", type_, "The format, whatever the name of OUTPUT");
    type->check(CLI::IsMember(formatNames()))->type_name("TYPE");
    command
        ->add_option("--page-height", pageHeight_,
                     "Write PDF, cut into pages of so many pixels; 0 for one page. OUTPUT names "
                     "no other format then")
        ->type_name("PIXELS")
        ->excludes(type);
    command->callback([this] { checkTogether(); });
    return command;
}

// Ends the reading of the arguments when no format is asked for.
void ImageCommand::checkTogether() const {
    if (pageHeight_ && formatOfFile(output_)) {
        throw CLI::ValidationError("OUTPUT",
                                   inQuotes(output_) +
                                       " names another format than PDF, of which --page-height is");
    }
    if (isPDF() || !type_.empty() || formatOfFile(output_)) return;
    throw CLI::ValidationError("OUTPUT", inQuotes(output_) +
                                             " tells no format by its name; --type names one");
}

bool ImageCommand::isPDF() const {
    return type_.empty() && (pageHeight_ || extensionOf(output_) == "pdf");
}

Result<void> ImageCommand::run(std::ostream& out) {
    const auto image = platform::Image::imageWithContentsOfFile(input_);
    if (!image) return image.error();
    TerminalProgress terminal(output_);
    const platform::ExportProgress progress = [&terminal](double done) {
        terminal.show(done);
        if (done >= 1) ignoreInterrupts();
        return true;
    };
    const Format* const format = type_.empty() ? formatOfFile(output_) : formatNamed(type_);
    const auto exported = isPDF() ? exportedPDF(*image, pageHeight_.value_or(0), progress)
                                  : exportedBitmap(*image, format->type, progress);
    terminal.clear();
    if (!exported) return exported.error().withContext(output_);
    if (const auto saved = platform::FileManager::writeToFile(output_, *exported); !saved)
        return saved.error();
    out << inQuotes(output_) << " is written.\n";
    return {};
}

}  // namespace utilia::control
