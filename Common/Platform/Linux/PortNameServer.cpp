#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <type_traits>
#include <utility>

#include <dirent.h>

#include "Common/Logging/Log.h"
#include "Common/Platform/Linux/PortFolder.h"
#include "Common/Platform/Linux/PortImplementation.h"
#include "Common/Platform/Linux/PortRegistration.h"
#include "Common/Platform/Port.h"

// What this process knows of its own ports: who holds which name here, and which connections are
// open. Both are weak: a port ends with its last user.
//
// Connections are kept per thread. A sending port's notification has to come from the loop of the
// thread that looked it up, so a second thread gets a connection of its own rather than one whose
// end it would never hear of.

namespace utilia::platform {
namespace {

struct LocalPorts {
    std::mutex mutex;
    std::map<std::string, std::weak_ptr<Port>, std::less<>> receiving;
    std::multimap<std::string, std::weak_ptr<Port>, std::less<>> sending;
};

LocalPorts& localPorts() {
    static LocalPorts* const ports = new LocalPorts;
    return *ports;
}

std::shared_ptr<Port> keptSender(std::string_view name) {
    LocalPorts& ports = localPorts();
    const std::lock_guard guard(ports.mutex);
    const auto [first, last] = ports.sending.equal_range(name);
    for (auto it = first; it != last; ++it) {
        auto port = it->second.lock();
        if (port && port->implementation().sender->belongsToCurrentThread()) return port;
    }
    return nullptr;
}

void keepSender(const std::shared_ptr<Port>& port) {
    LocalPorts& ports = localPorts();
    const std::lock_guard guard(ports.mutex);
    std::erase_if(ports.sending, [](const auto& entry) { return entry.second.expired(); });
    ports.sending.emplace(port->implementation().sender->name(), port);
}

// A condition that lasts would otherwise fill the log: tools look their agent up with every
// message.
void logOnChange(std::string_view format, std::string_view name, const Error& error) {
    static std::mutex mutex;
    static std::string* const last = new std::string;
    {
        const std::lock_guard guard(mutex);
        if (*last == error.description) return;
        *last = error.description;
    }
    KULogVariadic(format, name, error);
}

// The function's answer, or an empty one when there is no memory for it.
template <class Function>
std::invoke_result_t<Function> orNothing(std::string_view name, Function function) {
    try {
        return function();
    } catch (const std::bad_alloc&) {
        KULogVariadic("Port %@: no memory", name);
        return std::invoke_result_t<Function>();
    }
}

bool registerHere(const std::shared_ptr<Port>& port, std::string_view name) {
    auto claimed = PortRegistration::claim(name);
    if (!claimed) {
        if (!claimed.error().is(UtiliaErrorCode::Busy)) {
            logOnChange("Port %@ cannot be registered: %@", name, claimed.error());
        }
        return false;
    }
    LocalPorts& ports = localPorts();
    const std::lock_guard guard(ports.mutex);
    // Last of what may fail: a name that is served but not known here could not be given up.
    ports.receiving.insert_or_assign(std::string(name), port);
    port->implementation().receiver->add(std::move(claimed).value());
    return true;
}

std::shared_ptr<Port> openSender(std::string_view name) {
    if (auto kept = keptSender(name); kept && kept->isValid()) {
        Port::Implementation& implementation = kept->implementation();
        if (!implementation.sender->isHungUp()) return kept;
        // Its receiver ended, and the loop has not told it yet; another one may hold the name by
        // now.
        implementation.noticeDeath(*kept);
    }
    auto opened = PortSender::open(name);
    if (!opened) {
        if (!opened.error().is(UtiliaErrorCode::NotFound)) {
            logOnChange("Port %@ cannot be reached: %@", name, opened.error());
        }
        return nullptr;
    }
    auto port = makeSendingPort(std::move(opened).value());
    keepSender(port);
    return port;
}

struct CloseFolder {
    void operator()(DIR* folder) const { closedir(folder); }
};

std::vector<PortNameServer::Registration> listRegistrations() {
    const auto folder = PortFolder::open();
    if (!folder) {
        logOnChange("The registrations%@ cannot be listed: %@", "", folder.error());
        return {};
    }
    std::vector<PortNameServer::Registration> found;
    const std::unique_ptr<DIR, CloseFolder> list(opendir(folder->path().c_str()));
    if (!list) return found;
    const std::string suffix = PortFolder::lockName("");
    while (const dirent* entry = readdir(list.get())) {
        const std::string file = entry->d_name;
        if (file.size() <= suffix.size() || !file.ends_with(suffix)) continue;
        const PortLockState lock = readPortLock(*folder, file);
        found.push_back({file.substr(0, file.size() - suffix.size()), lock.isHeld, lock.holder});
    }
    std::sort(found.begin(), found.end(),
              [](const auto& a, const auto& b) { return a.name < b.name; });
    return found;
}

}  // namespace

PortNameServer& PortNameServer::systemDefaultPortNameServer() {
    static PortNameServer* const server = new PortNameServer;
    return *server;
}

bool PortNameServer::registerPort(const std::shared_ptr<Port>& port, std::string_view name) {
    if (!port || !port->isValid() || !port->implementation().receiver) return false;
    return orNothing(name, [&] { return registerHere(port, name); });
}

std::shared_ptr<Port> PortNameServer::portForName(std::string_view name) {
    return orNothing(name, [&] { return openSender(name); });
}

void PortNameServer::removePortForName(std::string_view name) {
    std::shared_ptr<Port> holder;
    {
        LocalPorts& ports = localPorts();
        const std::lock_guard guard(ports.mutex);
        const auto found = ports.receiving.find(name);
        if (found == ports.receiving.end()) return;
        holder = found->second.lock();
        ports.receiving.erase(found);
    }
    if (!holder) return;
    // Takes in connections, which needs memory.
    orNothing(name, [&] { holder->implementation().receiver->removeName(name); });
}

std::vector<PortNameServer::Registration> PortNameServer::registrations() const {
    return orNothing("registrations", listRegistrations);
}

}  // namespace utilia::platform
