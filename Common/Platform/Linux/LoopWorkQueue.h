#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>

#include <glib.h>

namespace utilia::platform {

// Work that any thread hands to the thread of a GLib context.
//
// Only our own mutex guards the work; GLib is told a time and nothing else. While the queue holds
// anything, its source is ready, so that a nested run goes on with what an outer turn has not
// reached.
//
// Threads: add() on any; construction and destruction on the loop's.
class LoopWorkQueue final {
public:
    explicit LoopWorkQueue(GMainContext* context);
    ~LoopWorkQueue();
    LoopWorkQueue(const LoopWorkQueue&) = delete;
    LoopWorkQueue& operator=(const LoopWorkQueue&) = delete;

    void add(std::function<void()> work);

private:
    struct Source;
    struct Entry {
        std::uint64_t number;
        std::function<void()> work;
    };

    void dispatch();
    static gboolean dispatchSource(GSource* source, GSourceFunc callback, gpointer data);
    static GSourceFuncs sourceFunctions_;

    GSource* source_;
    std::mutex mutex_;
    std::deque<Entry> entries_;
    std::uint64_t nextNumber_ = 0;
};

}  // namespace utilia::platform
