#include "Common/Platform/Linux/Modules/Desktop/DesktopModule.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "Common/Platform/Linux/Modules/Desktop/HostWatch.h"
#include "Common/Platform/Linux/Modules/Desktop/NetworkThread.h"

using utilia::platform::desktop::HostWatch;
using utilia::platform::desktop::NetworkThread;

struct UtiliaDesktopHostWatch {
    std::shared_ptr<HostWatch> watch;
};

namespace utilia::platform::desktop {
namespace {

void explain(char* reason, const char* what, int error) {
    std::snprintf(reason, kUtiliaDesktopReasonSize, "%s: %s", what, std::strerror(error));
}

UtiliaDesktopHostWatch* watchHost(const char* host, UtiliaDesktopHostChanged changed, void* context,
                                  char* reason) noexcept try {
    NetworkThread& thread = NetworkThread::shared();
    if (thread.isInForkedChild()) {
        std::snprintf(reason, kUtiliaDesktopReasonSize, "not in a forked child");
        return nullptr;
    }
    auto made = std::make_unique<UtiliaDesktopHostWatch>();
    made->watch = std::make_shared<HostWatch>(host, changed, context);
    const char* what = "";
    if (const int error = thread.add(made->watch, &what); error != 0) {
        explain(reason, what, error);
        return nullptr;
    }
    return made.release();
} catch (const std::bad_alloc&) {
    std::snprintf(reason, kUtiliaDesktopReasonSize, "not enough memory");
    return nullptr;
}

void endHostWatch(UtiliaDesktopHostWatch* watch) noexcept {
    // In a forked child, what belongs to the thread of its parent stays as it is.
    if (NetworkThread::shared().isInForkedChild()) return;
    const std::unique_ptr<UtiliaDesktopHostWatch> owned(watch);
    owned->watch->end();
    NetworkThread::shared().collectEnded();
}

}  // namespace
}  // namespace utilia::platform::desktop

extern "C" __attribute__((visibility("default"))) const UtiliaDesktopModule utiliaDesktopModule;
const UtiliaDesktopModule utiliaDesktopModule = {
    kUtiliaDesktopVersion,
    utilia::platform::desktop::watchHost,
    utilia::platform::desktop::endHostWatch,
};
