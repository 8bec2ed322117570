#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include <glib.h>
#include <sys/epoll.h>

#include "Common/Foundation/Result.h"
#include "Common/Platform/Linux/ForkGuardedFd.h"

namespace utilia::platform {

// Who is told that a descriptor is ready.
class LoopWatcher {
public:
    // The events as epoll names them. The call may end this watch and any other, and may run the
    // loop.
    virtual void descriptorIsReady(std::uint32_t events) = 0;

protected:
    ~LoopWatcher() = default;
};

// The descriptors that one thread's loop watches: all of them behind a single source of its GLib
// context.
//
// Readiness is level-triggered: a watcher is told again in every turn until it has taken what there
// is.
//
// Threads: belongs to the loop's thread. It outlives that thread when somebody still holds it, and
// is closed then.
class LoopWatches final {
public:
    // Zero is never given.
    using Id = std::uint64_t;

    explicit LoopWatches(GMainContext* context);
    ~LoopWatches();
    LoopWatches(const LoopWatches&) = delete;
    LoopWatches& operator=(const LoopWatches&) = delete;

    // The descriptor and the watcher must stay until the watch is removed.
    Result<Id> add(int descriptor, std::uint32_t events, LoopWatcher& watcher);
    void setEvents(Id id, std::uint32_t events);
    void remove(Id id);

    // Ends every watch: the thread ends.
    void close();

private:
    struct Source;
    struct Slot {
        LoopWatcher* watcher = nullptr;  // null: free
        int descriptor = -1;
        std::uint32_t generation = 1;
    };

    static constexpr int kEventsPerTurn = 64;

    Result<void> open();
    Slot* find(Id id);
    void dispatch();
    static gboolean prepareSource(GSource* source, gint* timeout);
    static gboolean dispatchSource(GSource* source, GSourceFunc callback, gpointer data);
    static GSourceFuncs sourceFunctions_;
    static gint pollContext(GPollFD* descriptors, guint count, gint timeout);
    bool canWaitAlone(const GPollFD& wakeUp);

    GMainContext* context_;
    GSource* source_ = nullptr;
    ForkGuardedFd epoll_;
    int wakeUp_ = -1;  // the descriptor by which GLib wakes the context, once epoll has it as well
    // What this turn's wait answered, until it is dispatched; nothing when GLib did the waiting.
    std::array<epoll_event, kEventsPerTurn> events_;
    int eventCount_ = 0;
    bool hasEvents_ = false;
    std::vector<Slot> slots_;
    std::vector<std::uint32_t> freeSlots_;
};

}  // namespace utilia::platform
