#pragma once

#include "Common/Platform/Linux/Modules/Export/ExportPDF.h"

namespace utilia::platform::pdf {

// What the module's table leads to.
extern const UtiliaExportPDF kExportPDF;

}  // namespace utilia::platform::pdf
