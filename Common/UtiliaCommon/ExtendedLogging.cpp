#include "Common/UtiliaCommon/ExtendedLogging.h"

#include "Common/Logging/Log.h"
#include "Common/Platform/SystemLog.h"
#include "Common/Platform/UserDefaults.h"
#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"

namespace utilia {

void installProductLogging() {
    setLogSink(platform::makeSystemLogSink());
    setExtendedLoggingProbe([] {
        // Read at each ask: the switch is thrown while tools run, and an unchanged file costs one
        // look at its name.
        const auto preferences = platform::UserDefaults::initWithDomain(kAgentBundleIdentifier);
        return preferences && preferences->boolForKey(kExtendedLoggingKey);
    });
}

}  // namespace utilia
