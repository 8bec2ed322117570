#include "Common/Platform/Linux/InstancePort.h"

#include <algorithm>
#include <utility>

#include <glib.h>

#include "Common/Logging/Log.h"

namespace utilia::platform {
namespace {

constexpr std::uint32_t kReopenMessage = 1;  // contract: never renumber
constexpr std::size_t kHashDigits = 16;

struct GFree {
    void operator()(gchar* text) const { g_free(text); }
};

}  // namespace

// The string hash of port names samples long texts, so two paths can share it. Here that would make
// one of two different applications vanish, hence a digest of the whole path.
std::string InstancePort::nameForBundle(std::string_view bundleIdentifier,
                                        std::string_view bundlePath) {
    const std::unique_ptr<gchar, GFree> digest(g_compute_checksum_for_data(
        G_CHECKSUM_SHA256, reinterpret_cast<const guchar*>(bundlePath.data()), bundlePath.size()));
    return std::string(bundleIdentifier) + ".app." + std::string(digest.get(), kHashDigits);
}

std::unique_ptr<InstancePort> InstancePort::claim(const std::string& name, Reopen reopen) {
    auto port = Port::port();
    if (!port || !PortNameServer::systemDefaultPortNameServer().registerPort(port, name))
        return nullptr;
    return std::unique_ptr<InstancePort>(new InstancePort(std::move(port), std::move(reopen)));
}

InstancePort::InstancePort(std::shared_ptr<Port> port, Reopen reopen)
    : port_(std::move(port)), reopen_(std::move(reopen)) {
    port_->setDelegate(this);
    port_->scheduleInRunLoop();
}

InstancePort::~InstancePort() {
    port_->setDelegate(nullptr);
    port_->invalidate();
}

Result<void> InstancePort::handOver(const std::string& name,
                                    const std::vector<std::string>& arguments,
                                    std::chrono::milliseconds timeout) {
    const auto bytes = encode(arguments);
    if (!bytes) return bytes.error();
    const auto port = PortNameServer::systemDefaultPortNameServer().portForName(name);
    if (!port) return Error::utilia(UtiliaErrorCode::NotFound, name + ": nobody holds this port");
    PortMessage message(port, {PortMessage::Component(*bytes)});
    message.setMsgid(kReopenMessage);
    try {
        message.sendBeforeDate(std::chrono::steady_clock::now() + timeout);
    } catch (const PortException& exception) {
        const auto code = exception.name() == NSInvalidSendPortException
                              ? UtiliaErrorCode::NotFound
                              : UtiliaErrorCode::Unavailable;
        return Error::utilia(code, name + ": " + std::string(exception.reason()));
    }
    return {};
}

Result<Data> InstancePort::encode(const std::vector<std::string>& arguments) {
    Data bytes;
    for (const std::string& argument : arguments) {
        if (argument.find('\0') != std::string::npos) {
            return Error::utilia(UtiliaErrorCode::Refused, "an argument holds a NUL byte");
        }
        bytes.insert(bytes.end(), argument.begin(), argument.end());
        bytes.push_back(0);
    }
    if (arguments.size() > kMaximumArguments || bytes.size() > kMaximumSize) {
        return Error::utilia(UtiliaErrorCode::Refused,
                             "too many or too long arguments to hand over");
    }
    return bytes;
}

std::optional<std::vector<std::string>> InstancePort::decode(std::span<const std::uint8_t> bytes) {
    if (bytes.size() > kMaximumSize || (!bytes.empty() && bytes.back() != 0)) return std::nullopt;
    const auto count = static_cast<std::size_t>(std::count(bytes.begin(), bytes.end(), 0));
    if (count > kMaximumArguments) return std::nullopt;
    std::vector<std::string> arguments;
    arguments.reserve(count);
    for (auto begin = bytes.begin(); begin != bytes.end();) {
        const auto end = std::find(begin, bytes.end(), 0);
        arguments.emplace_back(begin, end);
        begin = end + 1;
    }
    return arguments;
}

void InstancePort::handlePortMessage(const PortMessage& message) {
    if (message.msgid() != kReopenMessage) return;
    const auto bytes = message.component(0);
    const auto arguments = bytes ? decode(*bytes) : std::nullopt;
    if (!arguments) {
        KULogVariadic("Application: a reopen message of wrong form is dropped");
        return;
    }
    // Called last: the application may end this port in it.
    const Reopen reopen = reopen_;
    reopen(*arguments);
}

}  // namespace utilia::platform
