#include "Common/Platform/Linux/Modules/Export/ExportModule.h"

#include "Common/Platform/Linux/Modules/Export/Codec.h"
#include "Common/Platform/Linux/Modules/Export/ExportPDFTable.h"

extern "C" __attribute__((visibility("default"))) const UtiliaExportModule utiliaExportModule;
const UtiliaExportModule utiliaExportModule = {
    kUtiliaExportVersion,
    &utilia::platform::bitmaps::kExportBitmaps,
    &utilia::platform::pdf::kExportPDF,
};
