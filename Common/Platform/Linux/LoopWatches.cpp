#include "Common/Platform/Linux/LoopWatches.h"

#include <array>
#include <cerrno>
#include <limits>

#include <sys/epoll.h>

#include "Common/Logging/CallbackGuard.h"

// One epoll descriptor behind one GLib source, rather than a source for each descriptor: an agent
// holds a hundred connections, and GLib's poll and its walks over all sources would be paid for
// each message. The second system call that a dispatch makes (epoll_wait after GLib's poll) costs
// less than two such sources.
//
// A watch is named by its slot and the slot's generation. Events that epoll answered before a watch
// was removed carry the old generation and reach nobody, so every watcher may remove any watch
// during a dispatch.

namespace utilia::platform {
namespace {

constexpr int kEventsPerDispatch = 64;

LoopWatches::Id makeId(std::uint32_t slot, std::uint32_t generation) {
    return (static_cast<LoopWatches::Id>(generation) << 32) | slot;
}

}  // namespace

struct LoopWatches::Source {
    GSource base;
    LoopWatches* watches;
};

// Readiness of the epoll descriptor is all there is to ask: neither prepare nor check is needed.
GSourceFuncs LoopWatches::sourceFunctions_ = {nullptr, nullptr, &LoopWatches::dispatchSource,
                                              nullptr, nullptr, nullptr};

LoopWatches::LoopWatches(GMainContext* context) : context_(context) {}

LoopWatches::~LoopWatches() { close(); }

Result<void> LoopWatches::open() {
    if (epoll_) return {};
    if (!context_) return Error::posix(ESHUTDOWN, "watch", "run loop of a thread that ended");
    UniqueFd epoll(epoll_create1(EPOLL_CLOEXEC));
    if (!epoll) return Error::posix(errno, "epoll_create1", "run loop");
    epoll_ = ForkGuardedFd(std::move(epoll));
    source_ = g_source_new(&sourceFunctions_, sizeof(Source));
    reinterpret_cast<Source*>(source_)->watches = this;
    g_source_set_static_name(source_, "utilia watches");
    g_source_set_can_recurse(source_, TRUE);
    g_source_add_unix_fd(source_, epoll_.get(), G_IO_IN);
    g_source_attach(source_, context_);
    return {};
}

void LoopWatches::close() {
    if (source_) {
        g_source_destroy(source_);
        g_source_unref(source_);
        source_ = nullptr;
    }
    epoll_.reset();
    slots_.clear();
    freeSlots_.clear();
    context_ = nullptr;
}

Result<LoopWatches::Id> LoopWatches::add(int descriptor, std::uint32_t events,
                                         LoopWatcher& watcher) {
    if (auto opened = open(); !opened) return opened.error();
    const bool isNewSlot = freeSlots_.empty();
    const std::uint32_t index =
        isNewSlot ? static_cast<std::uint32_t>(slots_.size()) : freeSlots_.back();
    const std::uint32_t generation = isNewSlot ? 1 : slots_[index].generation;
    const Id id = makeId(index, generation);
    epoll_event event{};
    event.events = events;
    event.data.u64 = id;
    if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, descriptor, &event) != 0) {
        return Error::posix(errno, "epoll_ctl", "run loop");
    }
    if (isNewSlot) {
        slots_.emplace_back();
    } else {
        freeSlots_.pop_back();
    }
    slots_[index].watcher = &watcher;
    slots_[index].descriptor = descriptor;
    return id;
}

LoopWatches::Slot* LoopWatches::find(Id id) {
    const auto index = static_cast<std::uint32_t>(id);
    if (index >= slots_.size()) return nullptr;
    Slot& slot = slots_[index];
    return slot.watcher && slot.generation == static_cast<std::uint32_t>(id >> 32) ? &slot
                                                                                   : nullptr;
}

void LoopWatches::setEvents(Id id, std::uint32_t events) {
    const Slot* slot = find(id);
    if (!slot) return;
    epoll_event event{};
    event.events = events;
    event.data.u64 = id;
    epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, slot->descriptor, &event);
}

void LoopWatches::remove(Id id) {
    Slot* slot = find(id);
    if (!slot) return;
    // Not left to close(): epoll keeps a description that a process just being started still
    // shares.
    if (epoll_.isOfThisProcess()) epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, slot->descriptor, nullptr);
    slot->watcher = nullptr;
    slot->descriptor = -1;
    ++slot->generation;
    // A slot whose generations are used up is given up, so that an id never comes back.
    if (slot->generation != std::numeric_limits<std::uint32_t>::max()) {
        freeSlots_.push_back(static_cast<std::uint32_t>(id));
    }
}

gboolean LoopWatches::dispatchSource(GSource* source, GSourceFunc, gpointer) {
    reinterpret_cast<Source*>(source)->watches->dispatch();
    return G_SOURCE_CONTINUE;
}

void LoopWatches::dispatch() {
    std::array<epoll_event, kEventsPerDispatch> events;
    const int count = epoll_wait(epoll_.get(), events.data(), kEventsPerDispatch, 0);
    for (int i = 0; i < count; ++i) {
        const epoll_event& event = events[static_cast<std::size_t>(i)];
        // Looked up only now: an earlier watcher of this batch may have removed it.
        const Slot* slot = find(event.data.u64);
        if (!slot) continue;
        LoopWatcher* const watcher = slot->watcher;
        runGuarded("A run loop callback", [&] { watcher->descriptorIsReady(event.events); });
    }
}

}  // namespace utilia::platform
