#include "Common/Platform/Linux/Modules/Desktop/LoopObjects.h"

#include <utility>

namespace utilia::platform::desktop {

struct WakeUp::Source {
    GSource base;
    WakeUp* owner;
};

WakeUp::WakeUp(GMainContext* context, std::function<void()> fire) : fire_(std::move(fire)) {
    static GSourceFuncs functions = {nullptr, nullptr, &WakeUp::dispatch,
                                     nullptr, nullptr, nullptr};
    source_ = g_source_new(&functions, sizeof(Source));
    reinterpret_cast<Source*>(source_)->owner = this;
    g_source_attach(source_, context);
}

WakeUp::~WakeUp() {
    g_source_destroy(source_);
    g_source_unref(source_);
}

gboolean WakeUp::dispatch(GSource* source, GSourceFunc, gpointer) {
    g_source_set_ready_time(source, -1);
    guarded(reinterpret_cast<Source*>(source)->owner->fire_);
    return G_SOURCE_CONTINUE;
}

}  // namespace utilia::platform::desktop
