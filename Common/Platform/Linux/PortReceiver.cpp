#include "Common/Platform/Linux/PortReceiver.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include "Common/Logging/Log.h"
#include "Common/Platform/Linux/PortConnection.h"
#include "Common/Platform/RunLoop.h"

// Connections: who may connect, how many, and for how long without a hello. What they send is taken
// in PortDelivery.cpp.
//
// A process that runs out of descriptors stops accepting, and nothing else: what is in the backlog
// stays there with everything that its senders have queued, and is taken in when a connection ends
// or a moment has passed. Accepting and closing instead would lose the messages of tools that have
// already exited.

namespace utilia::platform {
namespace {

constexpr std::size_t kAcceptsPerTurn = 16;
constexpr std::chrono::milliseconds kAcceptPause(200);
constexpr std::chrono::seconds kReportInterval(10);

}  // namespace

struct PortReceiver::Listener final : LoopWatcher {
    Listener(PortReceiver& owner, PortRegistration held)
        : receiver(owner), registration(std::move(held)) {}

    void descriptorIsReady(std::uint32_t) override { receiver.acceptFrom(*this, kAcceptsPerTurn); }

    PortReceiver& receiver;
    PortRegistration registration;
    LoopWatches::Id watch = 0;
};

PortReceiver::PortReceiver() = default;

PortReceiver::~PortReceiver() { close(); }

void PortReceiver::setDelegate(PortDelegate* delegate) {
    delegate_ = delegate;
    updateWatches();
}

void PortReceiver::schedule(std::shared_ptr<LoopWatches> watches) {
    if (watches_ == watches) return;
    unschedule();
    watches_ = std::move(watches);
    updateWatches();
}

void PortReceiver::unschedule() {
    unwatchAll();
    watches_ = nullptr;
    helloTimer_.reset();
    acceptTimer_.reset();
}

// A port that nobody serves watches nothing: readiness is level-triggered and would keep the loop
// turning.
void PortReceiver::updateWatches() {
    if (!isServing()) {
        unwatchAll();
        return;
    }
    for (const auto& listener : listeners_) watch(*listener);
    for (const auto& connection : connections_) watch(*connection);
    expectHello();
}

void PortReceiver::watch(Listener& listener) {
    if (!isServing() || listener.watch != 0) return;
    auto watch = watches_->add(listener.registration.listener(), isAcceptingPaused_ ? 0u : EPOLLIN,
                               listener);
    if (watch) {
        listener.watch = *watch;
    } else {
        KULogVariadic("Port %@ is not served: %@", listener.registration.name(), watch.error());
    }
}

void PortReceiver::watch(PortConnection& connection) {
    if (!isServing() || connection.watch != 0) return;
    auto watch = watches_->add(connection.socket.get(), EPOLLIN, connection);
    if (watch) {
        connection.watch = *watch;
    } else {
        KULogVariadic("Port %@: a connection is not served: %@", describe(), watch.error());
    }
}

void PortReceiver::unwatchAll() {
    if (!watches_) return;
    for (const auto& listener : listeners_) watches_->remove(std::exchange(listener->watch, 0));
    for (const auto& connection : connections_)
        watches_->remove(std::exchange(connection->watch, 0));
}

void PortReceiver::add(PortRegistration registration) {
    listeners_.push_back(std::make_unique<Listener>(*this, std::move(registration)));
    watch(*listeners_.back());
}

void PortReceiver::removeName(std::string_view name) {
    const auto found =
        std::find_if(listeners_.begin(), listeners_.end(),
                     [&](const auto& listener) { return listener->registration.name() == name; });
    if (found == listeners_.end()) return;
    acceptFrom(**found, limits_.connections);
    if (watches_) watches_->remove((*found)->watch);
    listeners_.erase(found);
}

void PortReceiver::close() {
    unschedule();
    delegate_ = nullptr;
    listeners_.clear();
    for (auto& connection : connections_) {
        connection->socket.reset();
        ended_.push_back(std::move(connection));
    }
    connections_.clear();
    if (depth_ == 0) ended_.clear();
}

void PortReceiver::acceptFrom(Listener& listener, std::size_t atMost) {
    for (std::size_t taken = 0; taken < atMost; ++taken) {
        if (connections_.size() >= limits_.connections) return pauseAccepting();
        UniqueFd socket(accept4(listener.registration.listener(), nullptr, nullptr,
                                SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (socket) {
            takeIn(std::move(socket));
            continue;
        }
        if (errno == EINTR || errno == ECONNABORTED) continue;
        // Short of descriptors or memory: this passes, and asking again at once would only burn
        // time.
        if (errno != EAGAIN) pauseAccepting();
        return;
    }
}

void PortReceiver::takeIn(UniqueFd socket) {
    pid_t process = 0;
    if (!isPeerOfThisUser(socket.get(), &process)) return report(PortRefusal::OtherUser, process);
    if (livingConnectionsOf(process) >= limits_.connectionsPerProcess) {
        return report(PortRefusal::TooManyConnections, process);
    }
    connections_.push_back(std::make_unique<PortConnection>(*this, std::move(socket), process));
    watch(*connections_.back());
    expectHello();
}

// A tool that connects for each of its messages may have closed many connections that have not been
// read to their end yet; these are not held against it. Asked of the kernel only where it matters.
std::size_t PortReceiver::livingConnectionsOf(pid_t process) const {
    std::vector<pollfd> asked;
    for (const auto& connection : connections_) {
        if (connection->process == process)
            asked.push_back({connection->socket.get(), POLLRDHUP, 0});
    }
    if (asked.size() < limits_.connectionsPerProcess) return asked.size();
    const int ended = poll(asked.data(), asked.size(), 0);
    return asked.size() - static_cast<std::size_t>(std::max(ended, 0));
}

void PortReceiver::pauseAccepting() {
    if (isAcceptingPaused_) return;
    isAcceptingPaused_ = true;
    if (!watches_) return;
    for (const auto& listener : listeners_) watches_->setEvents(listener->watch, 0);
    acceptTimer_ = Timer::scheduledTimer(kAcceptPause, false, [this] { resumeAccepting(); });
}

void PortReceiver::resumeAccepting() {
    if (!isAcceptingPaused_) return;
    isAcceptingPaused_ = false;
    acceptTimer_.reset();
    if (!watches_) return;
    for (const auto& listener : listeners_) watches_->setEvents(listener->watch, EPOLLIN);
}

// One timer serves all connections: it is set for the oldest that has said nothing. Nobody is woken
// for those that have.
void PortReceiver::expectHello() {
    if (!isServing()) return;
    const auto isSilent = [](const auto& connection) { return !connection->hasGreeted; };
    const auto oldest = std::find_if(connections_.begin(), connections_.end(), isSilent);
    if (oldest == connections_.end()) return helloTimer_.reset();
    if (helloTimer_) return;
    const auto left = (*oldest)->accepted + limits_.helloTimeout - std::chrono::steady_clock::now();
    helloTimer_ = Timer::scheduledTimer(left, false, [this] {
        const auto kept = shared_from_this();
        helloTimer_.reset();
        dropSilentConnections();
        expectHello();
    });
}

void PortReceiver::dropSilentConnections() {
    const auto limit = std::chrono::steady_clock::now() - limits_.helloTimeout;
    std::vector<PortConnection*> silent;
    for (const auto& connection : connections_) {
        if (!connection->hasGreeted && connection->accepted <= limit)
            silent.push_back(connection.get());
    }
    for (PortConnection* connection : silent) refuse(*connection, PortRefusal::NoHello);
}

void PortReceiver::end(PortConnection& connection) {
    const auto found =
        std::find_if(connections_.begin(), connections_.end(),
                     [&](const auto& candidate) { return candidate.get() == &connection; });
    if (found == connections_.end()) return;
    if (watches_) watches_->remove(std::exchange(connection.watch, 0));
    connection.socket.reset();
    // A delivery further down the stack may still be about this connection.
    if (depth_ > 0) ended_.push_back(std::move(*found));
    connections_.erase(found);
    if (connections_.empty()) helloTimer_.reset();
    resumeAccepting();
}

void PortReceiver::report(PortRefusal refusal, pid_t process) {
    RefusalRecord& record = refused_[static_cast<std::size_t>(refusal)];
    ++record.count;
    const auto now = std::chrono::steady_clock::now();
    if (record.count > 1 && now < record.reported + kReportInterval) {
        ++record.unreported;
        return;
    }
    record.reported = now;
    const std::string_view text = portRefusalText(refusal);
    if (const std::uint64_t more = std::exchange(record.unreported, 0); more > 0) {
        KULogVariadic("Port %@ refused %@ (process %d) and %lu times before", describe(), text,
                      process, more);
    } else {
        KULogVariadic("Port %@ refused %@ (process %d)", describe(), text, process);
    }
}

std::string PortReceiver::describe() const {
    return listeners_.empty() ? "without a name" : listeners_.front()->registration.name();
}

}  // namespace utilia::platform
