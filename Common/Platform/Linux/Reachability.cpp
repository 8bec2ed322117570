#include "Common/Platform/Reachability.h"

#include <array>
#include <atomic>
#include <string>
#include <utility>

#include "Common/Logging/CallbackGuard.h"
#include "Common/Platform/Linux/HostName.h"
#include "Common/Platform/Linux/ModuleLoader.h"
#include "Common/Platform/Linux/Modules/Desktop/DesktopModule.h"
#include "Common/Platform/Linux/OutOfMemory.h"
#include "Common/Platform/RunLoop.h"

// The module's thread stores the flags and posts the change to the owner's loop. The module calls
// nobody after endHostWatch(), so the owner's loop is there whenever something is posted to it; what
// was posted before finds the watch ended.

namespace utilia::platform {
namespace {

// What the owner and the changes on their way to him share.
struct Watched {
    Reachability::Changed changed;
    bool isEnded = false;  // the owner's thread only
};

}  // namespace

struct Reachability::Implementation {
    ~Implementation() {
        if (watch) module->endHostWatch(watch);
        watched->isEnded = true;
    }

    // On the module's thread.
    static void flagsChanged(void* context, std::uint32_t flags) noexcept {
        auto* self = static_cast<Implementation*>(context);
        self->flags = flags;
        runGuarded("Posting a change of reachability", [self, flags] {
            self->loop.perform([watched = self->watched, flags] {
                if (watched->isEnded) return;
                runGuarded("A reachability callback", [&] { watched->changed(flags); });
            });
        });
    }

    const UtiliaDesktopModule* module;
    const std::shared_ptr<Watched> watched;
    RunLoop& loop = RunLoop::currentRunLoop();
    std::atomic<std::uint32_t> flags = 0;
    UtiliaDesktopHostWatch* watch = nullptr;
};

Reachability::Reachability(std::unique_ptr<Implementation> implementation)
    : implementation_(std::move(implementation)) {}

Reachability::~Reachability() = default;

Result<std::unique_ptr<Reachability>> Reachability::create(std::string_view host, Changed changed) {
    return orOutOfMemory("watch", "a host", [&]() -> Result<std::unique_ptr<Reachability>> {
        const auto name = lookupHostName(host);
        if (!name) return Error::utilia(UtiliaErrorCode::Refused, "this is no name of a host");
        const auto module = moduleTable<UtiliaDesktopModule>("Desktop", kUtiliaDesktopSymbol,
                                                             kUtiliaDesktopVersion);
        if (!module) return module.error();
        auto implementation = std::unique_ptr<Implementation>(
            new Implementation{*module, std::make_shared<Watched>(Watched{std::move(changed)})});
        auto& made = *implementation;
        auto watch = std::unique_ptr<Reachability>(new Reachability(std::move(implementation)));
        std::array<char, kUtiliaDesktopReasonSize> reason{};
        made.watch = made.module->watchHost(name->c_str(), &Implementation::flagsChanged, &made,
                                            reason.data());
        if (!made.watch) {
            return Error::utilia(UtiliaErrorCode::Unavailable,
                                 "module Desktop: " + std::string(reason.data()));
        }
        return watch;
    });
}

std::uint32_t Reachability::flags() const { return implementation_->flags; }

}  // namespace utilia::platform
