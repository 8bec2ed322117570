#include "Common/Platform/Linux/Modules/Export/ExportModule.h"

extern "C" __attribute__((visibility("default"))) const UtiliaExportModule utiliaExportModule;
const UtiliaExportModule utiliaExportModule = {
    kUtiliaExportVersion,
    nullptr,
};
