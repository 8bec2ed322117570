#include "Common/Platform/Linux/TerminationSignals.h"

#include <cerrno>
#include <csignal>
#include <utility>

#include <sys/eventfd.h>
#include <unistd.h>

#include <glib-unix.h>

// The handler does what a signal handler may do: it adds to a counter in the kernel, which the main
// loop watches. GLib's own signal sources would start GLib's worker thread in every tool for the
// same effect.

namespace utilia::platform {
namespace {

constexpr int kSignals[] = {SIGTERM, SIGINT, SIGHUP};

// Written once before the first handler is installed, read by handlers.
volatile int eventDescriptor = -1;
volatile pid_t owner = 0;

void handleSignal(int number) {
    const int keptErrno = errno;
    if (getpid() != owner) {
        // A forked child shares the counter with its parent, which must not be ended by it.
        signal(number, SIG_DFL);
        raise(number);
    } else {
        eventfd_write(eventDescriptor, 1);
    }
    errno = keptErrno;
}

gboolean dispatch(gint descriptor, GIOCondition, gpointer data) {
    eventfd_t count = 0;
    if (eventfd_read(descriptor, &count) == 0) (*static_cast<std::function<void()>*>(data))();
    return G_SOURCE_CONTINUE;
}

}  // namespace

Result<void> installTerminationSignals(std::function<void()> onSignal) {
    if (eventDescriptor >= 0) return {};
    const int event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (event < 0) return Error::posix(errno, "eventfd", "termination signals");
    owner = getpid();
    eventDescriptor = event;

    GSource* const source = g_unix_fd_source_new(event, G_IO_IN);
    // Served inside nested runs too: a tool that waits for the agent must still end in an orderly
    // way.
    g_source_set_can_recurse(source, TRUE);
    g_source_set_priority(source, G_PRIORITY_HIGH);
    g_source_set_name(source, "utilia termination signals");
    g_source_set_callback(source, G_SOURCE_FUNC(dispatch),
                          new std::function<void()>(std::move(onSignal)), nullptr);
    g_source_attach(source, nullptr);
    g_source_unref(source);

    for (const int number : kSignals) {
        struct sigaction before {};
        if (sigaction(number, nullptr, &before) != 0 || (before.sa_flags & SA_SIGINFO) != 0 ||
            before.sa_handler != SIG_DFL) {
            continue;
        }
        struct sigaction action {};
        action.sa_handler = handleSignal;
        action.sa_flags = SA_RESTART;
        sigemptyset(&action.sa_mask);
        if (sigaction(number, &action, nullptr) != 0)
            return Error::posix(errno, "sigaction", "a termination signal");
    }
    return {};
}

}  // namespace utilia::platform
