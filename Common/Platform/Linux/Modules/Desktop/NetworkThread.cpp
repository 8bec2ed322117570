#include "Common/Platform/Linux/Modules/Desktop/NetworkThread.h"

#include "Common/Platform/Linux/Modules/Desktop/ModuleThread.h"
#include "Common/Platform/Linux/Modules/ServiceThread.h"

#include <cerrno>
#include <utility>

#include <glib-unix.h>
#include <unistd.h>

// Nothing is taken from GIO's monitor of the network: the one of a process reports to whoever asked
// for it first, so that a host's callbacks would run on this thread, and it does not notice when an
// interface without IPv6 goes down. The kernel's own messages say that something has changed, and
// the kernel is then asked what holds now.

namespace utilia::platform::desktop {
namespace {

// An interface that comes up is a dozen changes.
constexpr gint64 kChangesSettle = 100'000;  // microseconds

}  // namespace

NetworkThread& NetworkThread::shared() {
    static NetworkThread* const instance = new NetworkThread;
    return *instance;
}

int NetworkThread::add(std::shared_ptr<HostWatch> watch, const char** what) {
    const std::lock_guard guard(mutex_);
    if (process_ == 0) {
        if (const int error = start(what); error != 0) return error;
    }
    arriving_.push_back(std::move(watch));
    watchesWaiting_->fireSoon();
    return 0;
}

void NetworkThread::collectEnded() { watchesWaiting_->fireSoon(); }

bool NetworkThread::isInForkedChild() const { return process_ != 0 && process_ != getpid(); }

int NetworkThread::start(const char** what) {
    *what = "socket for routes";
    if (!network_.routes) network_.routes = NetlinkSocket::forQueries();
    if (!network_.routes) return errno;
    if (!network_.changes) network_.changes = NetlinkSocket::forChanges();
    if (!network_.changes) return errno;
    *what = "descriptors";
    if (const int error = descriptorsMissing(); error != 0) return error;
    if (!network_.context) network_.context = g_main_context_new();
    if (!watchesWaiting_) {
        watchesWaiting_ = std::make_unique<WakeUp>(network_.context, [this] { serveWatches(); });
        networkChanged_ = std::make_unique<WakeUp>(network_.context, [this] {
            for (const auto& watch : watches_) guarded([&] { watch->networkChanged(); });
        });
        network_.manager =
            std::make_unique<NetworkManagerWatch>([this] { networkChanged_->fireSoon(); });
    }
    *what = "start thread";
    const int error = startServiceThread("utilia-network", [this] { run(); });
    if (error == 0) process_ = getpid();
    return error;
}

void NetworkThread::run() {
    g_main_context_push_thread_default(network_.context);
    GSource* const changes = g_unix_fd_source_new(network_.changes.descriptor(), G_IO_IN);
    g_source_set_callback(changes, G_SOURCE_FUNC(&NetworkThread::readChanges), this, nullptr);
    g_source_attach(changes, network_.context);
    g_source_unref(changes);
    network_.manager->start();
    for (;;) g_main_context_iteration(network_.context, TRUE);
}

gboolean NetworkThread::readChanges(int, GIOCondition, gpointer thread) {
    auto* self = static_cast<NetworkThread*>(thread);
    if (self->network_.changes.takeChanges() && self->networkChanged_->time() < 0)
        self->networkChanged_->fireAt(g_get_monotonic_time() + kChangesSettle);
    return G_SOURCE_CONTINUE;
}

void NetworkThread::serveWatches() {
    std::vector<std::shared_ptr<HostWatch>> arrived;
    {
        const std::lock_guard guard(mutex_);
        arrived.swap(arriving_);
    }
    for (const auto& watch : arrived) {
        guarded([&] {
            watches_.push_back(watch);
            watch->start(network_);
        });
    }
    std::erase_if(watches_, [](const auto& watch) {
        const bool isEnded = watch->isEnded();
        if (isEnded) watch->stop();
        return isEnded;
    });
}

}  // namespace utilia::platform::desktop
