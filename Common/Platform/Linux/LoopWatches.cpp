#include "Common/Platform/Linux/LoopWatches.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

#include "Common/Logging/CallbackGuard.h"

// One epoll descriptor behind one GLib source, rather than a source for each descriptor: an agent
// holds a hundred connections, and GLib's poll and its walks over all sources would be paid for
// each message.
//
// Asking GLib's poll whether epoll is ready and then epoll what is ready would be two system calls
// a turn. So the context waits by a function of ours: as long as nobody else has a descriptor in the
// context, it waits in epoll, where GLib's own wake-up descriptor stands too, and what it answers is
// dispatched without asking again. With other people's descriptors in the context (a toolkit's
// display connection), or with somebody else's poll function, GLib waits as ever, and the dispatch
// asks epoll.
//
// A watch is named by its slot and the slot's generation. Events that epoll answered before a watch
// was removed carry the old generation and reach nobody, so every watcher may remove any watch
// during a dispatch.

namespace utilia::platform {
namespace {

// No watch has this id: generations begin with 1.
constexpr LoopWatches::Id kWakeUp = 0;

// Whose source was asked in this turn of this thread. GLib's poll functions get no argument of their
// own; every turn asks the source first, in the same thread.
thread_local LoopWatches* watchesOfThisTurn = nullptr;

LoopWatches::Id makeId(std::uint32_t slot, std::uint32_t generation) {
    return (static_cast<LoopWatches::Id>(generation) << 32) | slot;
}

}  // namespace

struct LoopWatches::Source {
    GSource base;
    LoopWatches* watches;
};

// Readiness of the epoll descriptor is all there is to ask: no check is needed.
GSourceFuncs LoopWatches::sourceFunctions_ = {
    &LoopWatches::prepareSource, nullptr, &LoopWatches::dispatchSource, nullptr, nullptr, nullptr};

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
    if (g_main_context_get_poll_func(context_) == g_poll)
        g_main_context_set_poll_func(context_, &LoopWatches::pollContext);
    return {};
}

void LoopWatches::close() {
    if (source_) {
        g_source_destroy(source_);
        g_source_unref(source_);
        source_ = nullptr;
        if (g_main_context_get_poll_func(context_) == &LoopWatches::pollContext)
            g_main_context_set_poll_func(context_, g_poll);
    }
    if (watchesOfThisTurn == this) watchesOfThisTurn = nullptr;
    epoll_.reset();
    wakeUp_ = -1;
    hasEvents_ = false;
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

gboolean LoopWatches::prepareSource(GSource* source, gint*) {
    LoopWatches* const watches = reinterpret_cast<Source*>(source)->watches;
    watches->hasEvents_ = false;
    watchesOfThisTurn = watches;
    return FALSE;
}

// As poll(2). `descriptors` are all that the context waits for.
gint LoopWatches::pollContext(GPollFD* descriptors, guint count, gint timeout) {
    LoopWatches* const watches = std::exchange(watchesOfThisTurn, nullptr);
    if (!watches || count != 2) return g_poll(descriptors, count, timeout);
    const bool isOurs = descriptors[0].fd == watches->epoll_.get();
    GPollFD& ours = descriptors[isOurs ? 0 : 1];
    GPollFD& wakeUp = descriptors[isOurs ? 1 : 0];
    if (ours.fd != watches->epoll_.get() || !watches->canWaitAlone(wakeUp))
        return g_poll(descriptors, count, timeout);

    ours.revents = 0;
    wakeUp.revents = 0;
    const int ready =
        epoll_wait(ours.fd, watches->events_.data(), kEventsPerTurn, timeout < 0 ? -1 : timeout);
    if (ready <= 0) return ready;
    const auto end = watches->events_.begin() + ready;
    const auto kept = std::remove_if(watches->events_.begin(), end, [](const epoll_event& event) {
        return event.data.u64 == kWakeUp;
    });
    if (kept != end) wakeUp.revents = G_IO_IN;
    watches->eventCount_ = static_cast<int>(kept - watches->events_.begin());
    watches->hasEvents_ = true;
    if (watches->eventCount_ > 0) ours.revents = G_IO_IN;
    return (wakeUp.revents != 0) + (ours.revents != 0);
}

// Whether the other descriptor of the context is the one by which GLib wakes it, and epoll has that.
// GLib makes it with the context and keeps it to the end.
bool LoopWatches::canWaitAlone(const GPollFD& wakeUp) {
    if (!epoll_.isOfThisProcess()) return false;
    if (wakeUp_ != -1) return wakeUp.fd == wakeUp_;
    if (wakeUp.events != G_IO_IN) return false;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = kWakeUp;
    if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, wakeUp.fd, &event) != 0) return false;
    wakeUp_ = wakeUp.fd;
    return true;
}

gboolean LoopWatches::dispatchSource(GSource* source, GSourceFunc, gpointer) {
    reinterpret_cast<Source*>(source)->watches->dispatch();
    return G_SOURCE_CONTINUE;
}

void LoopWatches::dispatch() {
    // A copy: a watcher that runs the loop has the events of its own turns put into events_.
    std::array<epoll_event, kEventsPerTurn> events;
    int count = 0;
    if (std::exchange(hasEvents_, false)) {
        count = eventCount_;
        std::copy_n(events_.begin(), count, events.begin());
    } else {
        count = epoll_wait(epoll_.get(), events.data(), kEventsPerTurn, 0);
    }
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
