#pragma once

#include <functional>
#include <memory>
#include <new>

#include <gio/gio.h>

namespace utilia::platform::desktop {

struct ObjectUnref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
template <class Object>
using ObjectPtr = std::unique_ptr<Object, ObjectUnref>;

struct ErrorFree {
    void operator()(GError* error) const { g_error_free(error); }
};
using ErrorPtr = std::unique_ptr<GError, ErrorFree>;

// Runs what a loop calls. Memory that runs out costs this call and not the process.
template <class Callback>
void guarded(const Callback& callback) noexcept {
    try {
        callback();
    } catch (const std::bad_alloc&) {
        return;
    }
}

// Calls on a context's thread at the time it is told, once for each time.
//
// Threads: fireAt() any; construction and destruction on the context's.
class WakeUp final {
public:
    WakeUp(GMainContext* context, std::function<void()> fire);
    ~WakeUp();
    WakeUp(const WakeUp&) = delete;
    WakeUp& operator=(const WakeUp&) = delete;

    // Microseconds of g_get_monotonic_time(); replaces the time before. 0: as soon as possible.
    void fireAt(gint64 time) { g_source_set_ready_time(source_, time); }
    void fireSoon() { fireAt(0); }
    // -1: at no time.
    gint64 time() const { return g_source_get_ready_time(source_); }

private:
    struct Source;
    static gboolean dispatch(GSource* source, GSourceFunc, gpointer);

    std::function<void()> fire_;
    GSource* source_;
};

}  // namespace utilia::platform::desktop
