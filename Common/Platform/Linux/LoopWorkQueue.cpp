#include "Common/Platform/Linux/LoopWorkQueue.h"

#include <utility>

#include "Common/Logging/CallbackGuard.h"

namespace utilia::platform {

struct LoopWorkQueue::Source {
    GSource base;
    LoopWorkQueue* queue;
};

GSourceFuncs LoopWorkQueue::sourceFunctions_ = {nullptr, nullptr, &LoopWorkQueue::dispatchSource,
                                                nullptr, nullptr, nullptr};

LoopWorkQueue::LoopWorkQueue(GMainContext* context)
    : source_(g_source_new(&sourceFunctions_, sizeof(Source))) {
    reinterpret_cast<Source*>(source_)->queue = this;
    g_source_set_static_name(source_, "utilia work");
    g_source_set_can_recurse(source_, TRUE);
    g_source_attach(source_, context);
}

LoopWorkQueue::~LoopWorkQueue() {
    g_source_destroy(source_);
    g_source_unref(source_);
}

void LoopWorkQueue::add(std::function<void()> work) {
    const std::lock_guard guard(mutex_);
    entries_.push_back({nextNumber_++, std::move(work)});
    if (entries_.size() == 1) g_source_set_ready_time(source_, 0);
}

gboolean LoopWorkQueue::dispatchSource(GSource* source, GSourceFunc, gpointer) {
    reinterpret_cast<Source*>(source)->queue->dispatch();
    return G_SOURCE_CONTINUE;
}

void LoopWorkQueue::dispatch() {
    std::uint64_t end = 0;
    {
        const std::lock_guard guard(mutex_);
        end = nextNumber_;
    }
    // What the work itself adds has a number past the end and waits for the next turn.
    for (;;) {
        std::function<void()> work;
        {
            const std::lock_guard guard(mutex_);
            if (entries_.empty() || entries_.front().number >= end) return;
            work = std::move(entries_.front().work);
            entries_.pop_front();
            if (entries_.empty()) g_source_set_ready_time(source_, -1);
        }
        runGuarded("Work for a run loop", work);
    }
}

}  // namespace utilia::platform
