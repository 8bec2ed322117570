#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/IndexPath.h"
#include "Common/Foundation/Value.h"
#include "Common/Platform/ExportProgress.h"
#include "Common/Platform/Image.h"

namespace utilia {

// Services that applications share and that are too small for classes of their own.
//
// Login items: applications are told apart by their URL, the resolved path of the bundle, as
// platform::Workspace and platform::Bundle answer it. An empty URL is that of no application.
// Failures are logged once, with the file's name.
//
// Update descriptions: what a version of the product brings, in the languages that there are, kept
// in the agent's preferences. The agent writes them, its tools read them.
//
// Pause of suggestions: the agent suggests no tools while one of those runs that have asked it not
// to. A tool that ends without taking that back, however it ends, is forgotten by the next query.
//
// Image export: what an image shows, as the content of a file that other programs read. Whatever is
// wrong (no image, none that can be decoded, not enough memory, an end that progress asks for) gives
// nothing, and no line in the log; ImageExport.h has the same with the reason. A file is written in place, links are
// followed; one that was not there before is removed again when it cannot be written whole, one
// that was there keeps what was written until then.
//
// Threads: any, an image one at a time; the update descriptions in the agent only the one that uses
// the standard user defaults.
class UTILIA_EXPORT CommonAuxiliary final {
public:
    // The one instance of the process.
    static CommonAuxiliary& sharedInstance();

    // Makes the application a login item, and removes items of the same file name at other places.
    // Answers whether it is one now.
    bool addAppToLoginItems(const std::optional<std::string>& url);
    // Removes every item of that file name, wherever it lies. False only when the list cannot be
    // read.
    bool removeAppFromLoginItems(const std::optional<std::string>& url);
    // Whether some item has exactly this URL.
    bool findAppInLoginItems(const std::optional<std::string>& url);

    // The text in the language of the framework's texts, else the English one ("en"); empty when
    // the version has neither.
    static std::optional<std::string>
    getLocalizedUpdateDescriptionForVersion(const std::optional<IndexPath>& version);
    // Replaces the version's texts, a dictionary from language codes; an empty argument removes
    // them. Other versions stay as they are.
    static void saveUpdateDescription(const std::optional<Dictionary>& description,
                                      const std::optional<IndexPath>& forVersion);

    // Has the tool, by its bundle identifier, ask for the pause or take that back. What the tool
    // has asked for already is not written again.
    void pauseToolsSuggestions(bool pause, std::string_view byTool);
    // Whether a tool that has asked for the pause runs. Those that do not run are forgotten.
    bool areToolsSuggestionsPaused();

    // The image (its first representation) as a PDF document, cut into pages of so many pixels
    // from the top; 0 for one page. Every page has the same size, a pixel is a point, and the last
    // one is blank below what is left for it. Nothing of a pixel is lost, transparency and colour
    // profile included. The same image gives the same bytes.
    //
    // Takes, besides the pixels, the document and a few megabytes, and for as long as it works a
    // thread for each processor, at most three besides the caller's.
    std::optional<Data> dataForImageAsPDF(const std::shared_ptr<platform::Image>& image,
                                          std::uint64_t pageHeight,
                                          const platform::ExportProgress& progress = {});
    // Answers whether the file is written.
    bool saveImageAsPDF(const std::shared_ptr<platform::Image>& image, std::string_view toFile,
                        std::uint64_t pageHeight, const platform::ExportProgress& progress = {});

    // The first representation of the image in a bitmap format, written as Documentation/Images.md
    // says: without loss but for GIF and JPEG, with the colour profile. An image without
    // representations gives nothing, as one that cannot be decoded.
    std::optional<Data> dataForImage(const std::shared_ptr<platform::Image>& image,
                                     platform::BitmapImageFileType asType,
                                     const platform::ExportProgress& progress = {});
    // Answers whether the file is written.
    bool saveImage(const std::shared_ptr<platform::Image>& image,
                   platform::BitmapImageFileType asType, std::string_view toFile,
                   const platform::ExportProgress& progress = {});

    // The mark of the product to be laid over pictures: white and dark on transparency, in three
    // sizes. Empty when the framework's bundle lacks it.
    std::shared_ptr<platform::Image> watermarkImage();
};

// Keys of the agent's preferences and of the shared store. Contract: never rename.
inline constexpr std::string_view kUpdateDescriptionsKey = "UpdateDescriptions";
inline constexpr std::string_view kToolsSuggestionsPausedByKey = "ToolsSuggestionsPausedBy";
// The language that every description should have.
inline constexpr std::string_view kEnglishDescriptionKey = "en";

}  // namespace utilia
