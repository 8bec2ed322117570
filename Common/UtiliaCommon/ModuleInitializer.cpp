#include "Common/UtiliaCommon/FrameworkStartInternal.h"

// Runs when the shared library is loaded, before the application's own main. Nothing may be assumed
// here: no started toolkit, no locale, no loop.

namespace {

__attribute__((constructor)) void initializeModule() { utilia::initializeFramework(); }

}  // namespace
