#include "Common/Platform/Linux/Modules/Desktop/HostWatch.h"

#include <algorithm>
#include <utility>

// Routes are looked at whenever the network changes, at no cost to speak of. Names are looked up
// again then too, because another network may give them other addresses, but not more often than a
// machine can bear whose network changes many times a second.
//
// A name server that does not answer says nothing about the host: the addresses from before stand.
// One that says that there is no such name is believed. Either way it is asked again, at growing
// intervals.
//
// There is one lookup at a time. The system's resolver cannot be interrupted, so one that is given
// up lives on in its thread until its own time is over; giving up at each change of the network
// would gather such threads.

namespace utilia::platform::desktop {
namespace {

constexpr gint64 kSecond = G_USEC_PER_SEC;
// After the last lookup began.
constexpr gint64 kPauseWithNews = 2 * kSecond;
constexpr gint64 kPauseWithoutNews = 30 * kSecond;
constexpr gint64 kFirstPauseAfterFailure = 2 * kSecond;
constexpr gint64 kLongestPauseAfterFailure = 300 * kSecond;

}  // namespace

HostWatch::HostWatch(std::string host, UtiliaDesktopHostChanged changed, void* context)
    : changed_(changed), context_(context), host_(std::move(host)) {}

void HostWatch::end() {
    const std::lock_guard guard(mutex_);
    changed_ = nullptr;
}

bool HostWatch::isEnded() const {
    const std::lock_guard guard(mutex_);
    return !changed_;
}

void HostWatch::start(const Network& network) {
    network_ = &network;
    pauseAfterFailure_ = kFirstPauseAfterFailure;
    nextLookUp_ = std::make_unique<WakeUp>(network.context, [this] { lookUp(); });
    lookUp();
}

void HostWatch::stop() {
    if (lookUp_) g_cancellable_cancel(lookUp_.get());
    nextLookUp_.reset();
}

void HostWatch::networkChanged() {
    const std::uint32_t before = flags_;
    publish(currentFlags());
    const bool isNews = addresses_.empty() || flags_ != before;
    pauseAfterFailure_ = kFirstPauseAfterFailure;
    lookUpBy(lookUpBegan_ + (isNews ? kPauseWithNews : kPauseWithoutNews));
}

// Sooner, when that has been planned already.
void HostWatch::lookUpBy(gint64 time) {
    const auto sooner = [time](gint64 planned) {
        return planned < 0 ? time : std::min(planned, time);
    };
    if (lookUp_) {
        lookUpAfterThis_ = sooner(lookUpAfterThis_);
    } else {
        nextLookUp_->fireAt(sooner(nextLookUp_->time()));
    }
}

void HostWatch::lookUp() {
    lookUp_.reset(g_cancellable_new());
    lookUpBegan_ = g_get_monotonic_time();
    lookUpAfterThis_ = -1;
    auto self = std::make_unique<std::shared_ptr<HostWatch>>(shared_from_this());
    const ObjectPtr<GResolver> resolver(g_resolver_get_default());
    g_resolver_lookup_by_name_async(resolver.get(), host_.c_str(), lookUp_.get(),
                                    &HostWatch::lookedUp, self.release());
}

void HostWatch::lookedUp(GObject* resolver, GAsyncResult* result, gpointer watch) {
    const std::unique_ptr<std::shared_ptr<HostWatch>> self(
        static_cast<std::shared_ptr<HostWatch>*>(watch));
    GError* error = nullptr;
    GList* addresses = g_resolver_lookup_by_name_finish(G_RESOLVER(resolver), result, &error);
    ErrorPtr ownedError(error);
    guarded([&] { (*self)->finishLookUp(addresses, std::move(ownedError)); });
    g_resolver_free_addresses(addresses);
}

void HostWatch::finishLookUp(GList* addresses, ErrorPtr error) {
    lookUp_.reset();
    if (!nextLookUp_) return;  // stopped
    if (lookUpAfterThis_ >= 0) lookUpBy(lookUpAfterThis_);
    if (error) {
        lookUpBy(g_get_monotonic_time() + pauseAfterFailure_);
        pauseAfterFailure_ = std::min(2 * pauseAfterFailure_, kLongestPauseAfterFailure);
        if (g_error_matches(error.get(), G_RESOLVER_ERROR, G_RESOLVER_ERROR_NOT_FOUND))
            addresses_.clear();
    } else {
        pauseAfterFailure_ = kFirstPauseAfterFailure;
        std::vector<ObjectPtr<GInetAddress>> found;
        for (GList* each = addresses; each; each = each->next)
            found.emplace_back(G_INET_ADDRESS(g_object_ref(each->data)));
        addresses_ = std::move(found);
    }
    publish(currentFlags());
}

std::uint32_t HostWatch::currentFlags() const {
    std::uint32_t best = 0;
    for (const auto& address : addresses_) {
        const Route route =
            network_->routes.routeTo({g_inet_address_to_bytes(address.get()),
                                      g_inet_address_get_native_size(address.get())});
        best = betterFlags(best, hostFlags(route, network_->manager->isRestricted()));
    }
    return best;
}

void HostWatch::publish(std::uint32_t flags) {
    if (std::exchange(flags_, flags) == flags) return;
    const std::lock_guard guard(mutex_);
    if (changed_) changed_(context_, flags);
}

}  // namespace utilia::platform::desktop
