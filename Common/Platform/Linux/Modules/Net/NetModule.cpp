#include "Common/Platform/Linux/Modules/Net/NetModule.h"

#include <cstdio>
#include <memory>
#include <new>

#include "Common/Platform/Linux/Modules/Net/NetWorker.h"
#include "Common/Platform/Linux/Modules/Net/Transfer.h"

namespace utilia::platform::net {
namespace {

std::uint64_t start(const UtiliaNetRequest* request, const UtiliaNetClient* client,
                    char* reason) noexcept try {
    NetWorker& worker = NetWorker::shared();
    if (worker.isInForkedChild()) {
        std::snprintf(reason, kUtiliaNetReasonSize, "not in a forked child");
        return 0;
    }
    return worker.add(std::make_unique<Transfer>(*request, *client), reason);
} catch (const std::bad_alloc&) {
    std::snprintf(reason, kUtiliaNetReasonSize, "out of memory");
    return 0;
}

void cancel(std::uint64_t load) noexcept {
    NetWorker& worker = NetWorker::shared();
    // In a forked child, what belongs to the thread of its parent stays as it is.
    if (!worker.isInForkedChild()) worker.cancel(load);
}

}  // namespace
}  // namespace utilia::platform::net

extern "C" __attribute__((visibility("default"))) const UtiliaNetModule utiliaNetModule;
const UtiliaNetModule utiliaNetModule = {
    kUtiliaNetVersion,
    utilia::platform::net::start,
    utilia::platform::net::cancel,
};
