#include "Common/Platform/RunLoop.h"

#include <algorithm>

#include <unistd.h>

#include "Common/Platform/Linux/RunLoopImplementation.h"

// A run is a series of turns of the GLib context, and not a GMainLoop: a host that runs the default
// context itself serves our sources all the same, and a nested run needs nothing but the next turn.

namespace utilia::platform {
namespace {

constexpr gint64 kNever = -1;

gboolean wakeOnly(GSource*, GSourceFunc, gpointer) { return G_SOURCE_REMOVE; }
GSourceFuncs wakeFunctions = {nullptr, nullptr, &wakeOnly, nullptr, nullptr, nullptr};

// Ends a blocking turn when the time comes.
class WakeAt final {
public:
    WakeAt(GMainContext* context, gint64 time) {
        if (time == kNever) return;
        source_ = g_source_new(&wakeFunctions, sizeof(GSource));
        g_source_set_can_recurse(source_, TRUE);
        g_source_set_ready_time(source_, time);
        g_source_attach(source_, context);
    }
    ~WakeAt() {
        if (!source_) return;
        g_source_destroy(source_);
        g_source_unref(source_);
    }
    WakeAt(const WakeAt&) = delete;
    WakeAt& operator=(const WakeAt&) = delete;

private:
    GSource* source_ = nullptr;
};

gint64 monotonicTimeAfter(std::chrono::nanoseconds time) {
    // A year is as good as for ever, far from any overflow, and spares each wait its timer.
    if (time >= std::chrono::hours(24 * 365)) return kNever;
    const auto bounded = std::max(time, std::chrono::nanoseconds(0));
    return g_get_monotonic_time() + std::chrono::ceil<std::chrono::microseconds>(bounded).count();
}

bool isMainThread() { return gettid() == getpid(); }

}  // namespace

RunLoop::Implementation::Implementation(GMainContext* loopContext, bool pushed)
    : context(g_main_context_ref(loopContext)), isPushed(pushed),
      watches(std::make_shared<LoopWatches>(loopContext)), work(loopContext) {}

RunLoop::Implementation::~Implementation() {
    watches->close();
    if (isPushed) g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
}

void RunLoop::Implementation::turn(gint64 until) {
    // A stop from before this run has had its wake-up already.
    const bool mayBlock = !isStopRequested && (until == kNever || g_get_monotonic_time() < until);
    g_main_context_iteration(context, mayBlock);
}

bool RunLoop::Implementation::serve(const std::function<bool()>& done, gint64 until) {
    const WakeAt wake(context, until);
    bool isDone = done && done();
    while (!isDone) {
        turn(until);
        isDone = done && done();
        const bool isOver = until != kNever && g_get_monotonic_time() >= until;
        // Whatever ended this run, a stop that came during it was meant for it and not for the one
        // around it.
        if (isStopRequested.exchange(false) || isOver) break;
    }
    return isDone;
}

RunLoop::RunLoop() = default;
RunLoop::~RunLoop() = default;

struct RunLoopAccess {
    static RunLoop* make(GMainContext* context, bool isPushed) {
        auto* loop = new RunLoop;
        loop->implementation_ = std::make_unique<RunLoop::Implementation>(context, isPushed);
        return loop;
    }
    static void destroy(RunLoop* loop) { delete loop; }
};

namespace {

// The loop of a thread other than the main one lives as long as the thread.
struct ThreadLoop {
    RunLoop* loop = nullptr;
    ~ThreadLoop() {
        if (loop) RunLoopAccess::destroy(loop);
    }
};

RunLoop* makeThreadLoop() {
    if (GMainContext* given = g_main_context_get_thread_default())
        return RunLoopAccess::make(given, false);
    GMainContext* own = g_main_context_new();
    g_main_context_push_thread_default(own);
    RunLoop* loop = RunLoopAccess::make(own, true);
    g_main_context_unref(own);
    return loop;
}

}  // namespace

RunLoop& RunLoop::mainRunLoop() {
    static RunLoop* const loop = RunLoopAccess::make(g_main_context_default(), false);
    return *loop;
}

RunLoop& RunLoop::currentRunLoop() {
    if (isMainThread()) return mainRunLoop();
    static thread_local ThreadLoop current;
    if (!current.loop) current.loop = makeThreadLoop();
    return *current.loop;
}

void RunLoop::run() { implementation_->serve({}, kNever); }

void RunLoop::runFor(std::chrono::nanoseconds time) {
    implementation_->serve({}, monotonicTimeAfter(time));
}

bool RunLoop::runUntil(const std::function<bool()>& done, std::chrono::nanoseconds time) {
    return implementation_->serve(done, monotonicTimeAfter(time));
}

void RunLoop::stop() {
    implementation_->isStopRequested = true;
    // A turn that already waits has to end for the stop to be seen.
    perform([] {});
}

void RunLoop::perform(std::function<void()> work) { implementation_->work.add(std::move(work)); }

}  // namespace utilia::platform
