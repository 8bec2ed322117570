#include "Common/Platform/Linux/Modules/Export/ExportPDF.h"

#include <cstdio>
#include <new>

#include "Common/Platform/Linux/Modules/Export/ExportPDFTable.h"
#include "Common/Platform/Linux/Modules/Export/PdfWriter.h"

struct UtiliaExportPDFContext {
    utilia::platform::pdf::PdfWriter writer;
};

namespace utilia::platform::pdf {
namespace {

void explain(char* reason, const char* text) {
    if (reason) std::snprintf(reason, kUtiliaExportReasonSize, "%s", text ? text : "");
}

// Memory that runs out is the one exception that the code below can meet; it ends here.
template <class Function>
bool run(UtiliaExportPDFContext* context, char* reason, Function function) noexcept {
    PdfWriter& writer = context->writer;
    bool isDone = false;
    try {
        isDone = function(writer);
    } catch (const std::bad_alloc&) {
        isDone = writer.fail("not enough memory");
    }
    if (!isDone) explain(reason, writer.reason());
    return isDone;
}

UtiliaExportPDFContext* create(const UtiliaExportSink* sink, const UtiliaExportPDFOptions* options,
                               char* reason) noexcept try {
    return new UtiliaExportPDFContext{PdfWriter(*sink, *options)};
} catch (const std::bad_alloc&) {
    explain(reason, "not enough memory");
    return nullptr;
}

bool beginPage(UtiliaExportPDFContext* context, const UtiliaExportRect* mediaBox,
               char* reason) noexcept {
    return run(context, reason, [&](PdfWriter& writer) { return writer.beginPage(*mediaBox); });
}

bool drawImage(UtiliaExportPDFContext* context, const UtiliaExportPixels* pixels,
               const UtiliaExportRect* rectangle, char* reason) noexcept {
    return run(context, reason,
               [&](PdfWriter& writer) { return writer.drawImage(*pixels, *rectangle); });
}

bool endPage(UtiliaExportPDFContext* context, char* reason) noexcept {
    return run(context, reason, [](PdfWriter& writer) { return writer.endPage(); });
}

bool close(UtiliaExportPDFContext* context, char* reason) noexcept {
    return run(context, reason, [](PdfWriter& writer) { return writer.close(); });
}

void release(UtiliaExportPDFContext* context) noexcept { delete context; }

}  // namespace

const UtiliaExportPDF kExportPDF = {create, beginPage, drawImage, endPage, close, release};

}  // namespace utilia::platform::pdf
