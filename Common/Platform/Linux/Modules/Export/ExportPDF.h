#pragma once

#include <cstdint>

#include "Common/Platform/Linux/Modules/Export/ExportModule.h"

// Pages of pictures as a PDF document, the second part of the Export module's table.
//
// Threads: a context belongs to one thread at a time; it starts threads of its own, which call
// nothing back.

extern "C" {

struct UtiliaExportPDFContext;

// In points, from the lower left corner of the page.
struct UtiliaExportRect {
    double x;
    double y;
    double width;
    double height;
};

struct UtiliaExportPDFOptions {
    // How many pixels will be drawn in all, which progress is a share of; 0 where that is not
    // known: progress then stays at 0.
    std::uint64_t pixelsExpected;
    // How many threads may compress, that of the caller included; 0 for as many as fit the machine.
    std::uint32_t maximumThreads;
};

struct UtiliaExportPDF {
    // The sink must stay. Null when there is not enough memory.
    UtiliaExportPDFContext* (*create)(const UtiliaExportSink* sink,
                                      const UtiliaExportPDFOptions* options, char* reason);

    // All answer whether it could be done; else `reason` (kUtiliaExportReasonSize bytes) says why,
    // and every later call but release() fails, too.
    bool (*beginPage)(UtiliaExportPDFContext* context, const UtiliaExportRect* mediaBox,
                      char* reason);
    // Pixels and profile must stay until close() or release().
    bool (*drawImage)(UtiliaExportPDFContext* context, const UtiliaExportPixels* pixels,
                      const UtiliaExportRect* rectangle, char* reason);
    bool (*endPage)(UtiliaExportPDFContext* context, char* reason);
    // Ends the document, which the sink has whole then.
    bool (*close)(UtiliaExportPDFContext* context, char* reason);

    void (*release)(UtiliaExportPDFContext* context);
};

}  // extern "C"
