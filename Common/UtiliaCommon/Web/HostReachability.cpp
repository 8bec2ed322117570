#include "Common/UtiliaCommon/Web/HostReachability.h"

#include <new>
#include <utility>

#include "Common/Logging/Log.h"

namespace utilia {
namespace {

// "" when there is none: between "//" and the path, without user and port, and without the brackets
// of an IPv6 address.
std::string_view hostOfURL(std::string_view url) {
    const std::size_t scheme = url.find("://");
    if (scheme == std::string_view::npos || scheme == 0) return {};
    std::string_view host = url.substr(scheme + 3);
    host = host.substr(0, host.find_first_of("/?#"));
    if (const std::size_t user = host.rfind('@'); user != std::string_view::npos)
        host.remove_prefix(user + 1);
    if (!host.starts_with('[')) return host.substr(0, host.find(':'));
    const std::size_t end = host.find(']');
    return end == std::string_view::npos ? std::string_view() : host.substr(1, end - 1);
}

}  // namespace

HostReachability::HostReachability() = default;
HostReachability::~HostReachability() = default;

std::unique_ptr<HostReachability>
HostReachability::initWithHostName(std::string_view hostName) try {
    auto made = std::make_unique<HostReachability>();
    auto target = platform::Reachability::create(
        hostName, [self = made.get()](std::uint32_t flags) { self->flagsChanged(flags); });
    if (!target) {
        KULogVariadic("Host %s cannot be watched: %@", hostName, target.error());
        return nullptr;
    }
    made->target_ = *std::move(target);
    return made;
} catch (const std::bad_alloc&) {
    KULogVariadic("Host %s cannot be watched: not enough memory", hostName);
    return nullptr;
}

std::unique_ptr<HostReachability> HostReachability::initWithURL(std::string_view url) {
    return initWithHostName(hostOfURL(url));
}

bool HostReachability::isReachable() const {
    return target_ && isReachableByFlags(target_->flags());
}

std::function<void()> HostReachability::onReachable() const {
    return onReachable_ ? *onReachable_ : std::function<void()>();
}

void HostReachability::setOnReachable(std::function<void()> onReachable) {
    onReachable_ = onReachable
                       ? std::make_shared<const std::function<void()>>(std::move(onReachable))
                       : nullptr;
}

// The block that runs stays until it has returned, whatever it does to this object.
void HostReachability::flagsChanged(std::uint32_t flags) {
    const auto block = onReachable_;
    if (block && isReachableByFlags(flags)) (*block)();
}

}  // namespace utilia
