#include "Common/Platform/PDFContext.h"

#include <optional>
#include <utility>

#include "Common/Platform/Linux/ExportModuleAccess.h"
#include "Common/Platform/Linux/ImageCodecs.h"
#include "Common/Platform/Linux/Modules/Export/ExportPDF.h"
#include "Common/Platform/Linux/OutOfMemory.h"

namespace utilia::platform {
namespace {

constexpr std::string_view kMaking = "make a PDF document";

UtiliaExportRect moduleRectangle(const PDFRect& rectangle) {
    return {rectangle.x, rectangle.y, rectangle.width, rectangle.height};
}

Error refused(const char* why) {
    return Error::utilia(UtiliaErrorCode::Refused, std::string(kMaking).append(": ").append(why));
}

bool isWithinBitmap(const BitmapSlice& slice) {
    if (!slice.bitmap || slice.rowCount == 0) return false;
    const BitmapImageRep& bitmap = *slice.bitmap;
    return slice.firstRow < bitmap.pixelsHigh &&
           slice.rowCount <= bitmap.pixelsHigh - slice.firstRow && bitmap.pixelsWide > 0 &&
           bitmap.rgba.size() == std::uint64_t{bitmap.pixelsWide} * bitmap.pixelsHigh * 4;
}

}  // namespace

struct PDFContext::Implementation {
    explicit Implementation(Options&& given) : options(std::move(given)), sink(options.progress) {}
    ~Implementation() {
        if (context) module->release(context);
    }
    Implementation(const Implementation&) = delete;
    Implementation& operator=(const Implementation&) = delete;

    const Options options;
    ExportSink sink;
    const UtiliaExportPDF* module = nullptr;
    UtiliaExportPDFContext* context = nullptr;
    std::vector<std::shared_ptr<const BitmapImageRep>> drawn;  // each once
    ProfileColours lastColours = ProfileColours::Neither;      // of the last one's profile

    // One call of the module.
    template <class Function>
    Result<void> call(Function function) {
        if (!context) return refused("the document has ended");
        if (!function(context, sink.reason())) return sink.error(kMaking);
        return {};
    }

    void keep(const std::shared_ptr<const BitmapImageRep>& bitmap) {
        if (!drawn.empty() && drawn.back() == bitmap) return;
        lastColours = fittingProfileColours(*bitmap);
        drawn.push_back(bitmap);
    }
};

PDFContext::PDFContext(std::unique_ptr<Implementation> implementation)
    : implementation_(std::move(implementation)) {}

PDFContext::~PDFContext() = default;

Result<std::unique_ptr<PDFContext>> PDFContext::create(Options options) {
    return orOutOfMemory("create", "PDF document", [&]() -> Result<std::unique_ptr<PDFContext>> {
        const auto table = exportModule();
        if (!table) return table.error();
        auto implementation = std::make_unique<Implementation>(std::move(options));
        implementation->module = (*table)->pdf;
        const UtiliaExportPDFOptions moduleOptions{implementation->options.pixelsExpected,
                                                   implementation->options.maximumThreads};
        implementation->context = implementation->module->create(
            implementation->sink.table(), &moduleOptions, implementation->sink.reason());
        if (!implementation->context) return implementation->sink.error(kMaking);
        return std::unique_ptr<PDFContext>(new PDFContext(std::move(implementation)));
    });
}

Result<void> PDFContext::beginPage(const PDFRect& mediaBox) {
    return orOutOfMemory("begin", "PDF page", [&] {
        return implementation_->call([&](UtiliaExportPDFContext* context, char* reason) {
            const UtiliaExportRect box = moduleRectangle(mediaBox);
            return implementation_->module->beginPage(context, &box, reason);
        });
    });
}

Result<void> PDFContext::drawImage(const BitmapSlice& slice, const PDFRect& rectangle) {
    return orOutOfMemory("draw", "picture", [&] {
        return implementation_->call([&](UtiliaExportPDFContext* context, char* reason) {
            UtiliaExportPixels pixels{};
            if (isWithinBitmap(slice)) {
                const BitmapImageRep& bitmap = *slice.bitmap;
                const std::size_t rowBytes = std::size_t{bitmap.pixelsWide} * 4;
                implementation_->keep(slice.bitmap);
                pixels = {bitmap.rgba.data() + rowBytes * slice.firstRow,
                          bitmap.pixelsWide,
                          slice.rowCount,
                          nullptr,
                          0,
                          false};
                if (implementation_->lastColours != ProfileColours::Neither) {
                    pixels.colourProfile = bitmap.colourProfile.data();
                    pixels.colourProfileSize = bitmap.colourProfile.size();
                    pixels.isGrey = implementation_->lastColours == ProfileColours::Grey;
                }
            }
            const UtiliaExportRect place = moduleRectangle(rectangle);
            return implementation_->module->drawImage(context, &pixels, &place, reason);
        });
    });
}

Result<void> PDFContext::endPage() {
    return orOutOfMemory("end", "PDF page", [&] {
        return implementation_->call([&](UtiliaExportPDFContext* context, char* reason) {
            return implementation_->module->endPage(context, reason);
        });
    });
}

Result<Data> PDFContext::close() {
    return orOutOfMemory("close", "PDF document", [&]() -> Result<Data> {
        Implementation& self = *implementation_;
        auto closed = self.call([&](UtiliaExportPDFContext* context, char* reason) {
            return self.module->close(context, reason);
        });
        if (!closed) return std::move(closed).error();
        self.module->release(std::exchange(self.context, nullptr));
        self.drawn.clear();
        return self.sink.finish(kMaking);
    });
}

}  // namespace utilia::platform
