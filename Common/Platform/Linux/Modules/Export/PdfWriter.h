#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Platform/Linux/Modules/Export/BandPool.h"
#include "Common/Platform/Linux/Modules/Export/ExportPDF.h"
#include "Common/Platform/Linux/Modules/Export/PdfDocument.h"

namespace utilia::platform::pdf {

// UtiliaExportPDFContext: pages with pictures, in a document that grows in the sink.
//
// Functions answer whether they could; reason() says why not, and nothing more can be done then.
// They throw std::bad_alloc.
//
// Threads: one at a time.
class PdfWriter final {
public:
    PdfWriter(const UtiliaExportSink& sink, const UtiliaExportPDFOptions& options);
    ~PdfWriter();

    bool beginPage(const UtiliaExportRect& mediaBox);
    bool drawImage(const UtiliaExportPixels& pixels, const UtiliaExportRect& rectangle);
    bool endPage();
    bool close();

    // What has failed; text that stays.
    const char* reason() const { return reason_; }
    bool fail(const char* reason);

private:
    // A picture's data, of which bands are written one after the other.
    struct Stream {
        std::uint32_t object = 0;
        std::string dictionary;          // without the length
        std::uint32_t lengthObject = 0;  // where the length is known only at the end
        std::uint64_t length = 0;
        std::uint32_t checksum = 1;
        double pixelsPerRow = 0;  // that progress counts
        bool isBegun = false;
    };
    // A whole object, or a band of a picture.
    struct Piece {
        std::uint32_t object = 0;
        std::string content;
        std::shared_ptr<Stream> stream;
        std::shared_ptr<BandJob> job;
    };
    struct DrawnImage {
        std::uint32_t object = 0;
        UtiliaExportRect rectangle = {};
    };
    struct Page {
        UtiliaExportRect mediaBox = {};
        std::vector<DrawnImage> images;
        bool hasTransparency = false;
    };

    bool begin();
    std::uint32_t profileObject(const UtiliaExportPixels& pixels);
    bool addPicture(const UtiliaExportPixels& pixels, Plane plane, std::uint32_t object,
                    std::string dictionary, double share);
    bool addObject(std::uint32_t object, std::string content);
    bool writeWhatIsDone();
    bool writeOldest();
    bool writeBand(Stream& stream, const BandJob& job);
    bool tellProgress(double pixels);
    bool sinkGaveUp();

    const UtiliaExportSink& sink_;
    const UtiliaExportPDFOptions options_;
    PdfDocument document_;
    std::deque<Piece> pieces_;  // what is to be written, in this order
    std::size_t bandsUnderWay_ = 0;
    BandPool pool_;

    bool isBegun_ = false;
    bool isClosed_ = false;
    std::unique_ptr<Page> page_;
    std::vector<std::uint32_t> pages_;
    std::uint32_t catalogue_ = 0;
    std::uint32_t pageTree_ = 0;
    std::vector<std::uint8_t> profile_;  // the last one
    std::uint32_t profileObject_ = 0;
    double pixelsDone_ = 0;
    const char* reason_ = nullptr;
};

}  // namespace utilia::platform::pdf
