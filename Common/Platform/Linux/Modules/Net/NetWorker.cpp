#include "Common/Platform/Linux/Modules/Net/NetWorker.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "Common/Platform/Linux/Modules/ServiceThread.h"

// libcurl tells which sockets it waits for and until when; the thread waits for them, and for
// orders, with one epoll descriptor. Data at a socket restart the clock of the load that it was
// opened for, also while they do not make up a whole line of headers yet.
//
// A load waits until there is room for it: then it gets a handle, and with it a place in libcurl's
// own queue for a connection. There are few of those to each host, as the original platform has it;
// loads of a host that does not answer leave room for those of others.
//
// When the process ends, libraries clean up after themselves, under the feet of a thread that is in
// the middle of them. So a function that runs before theirs parks the thread; it stops before the
// next socket, for each may mean a handshake.

namespace utilia::platform::net {
namespace {

constexpr std::size_t kMostActive = 256;
constexpr int kMostActiveOfServer = 32;
constexpr long kMostConnections = 64;
constexpr long kMostConnectionsOfHost = 6;
constexpr std::size_t kMostSpare = 16;
constexpr std::chrono::seconds kIdleConnectionsKept{10};
constexpr std::chrono::seconds kDesktopRemembered{60};
// One call of libcurl; the longest are handshakes, which read all certificates of the machine.
constexpr std::chrono::seconds kLongestParking{5};
constexpr std::uint64_t kOrders = ~std::uint64_t{0};
constexpr int kForever = -1;

int millisecondsUntil(Clock::time_point time, Clock::time_point now) {
    if (time <= now) return 0;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(time - now);
    return static_cast<int>(std::min<std::chrono::milliseconds::rep>(left.count(), 3600 * 1000));
}

// What epoll tells of a socket: the socket, and the load that it was opened for.
std::uint64_t socketKey(curl_socket_t socket, std::uint32_t number) {
    return std::uint64_t{number} << 32 | static_cast<std::uint32_t>(socket);
}

}  // namespace

NetWorker& NetWorker::shared() {
    static auto* const worker = new NetWorker;
    return *worker;
}

bool NetWorker::isInForkedChild() const { return process_ != 0 && process_ != getpid(); }

std::uint64_t NetWorker::add(std::unique_ptr<Transfer> transfer, char* reason) {
    Loads made;
    std::map<std::uint32_t, bool> mark;
    const std::lock_guard guard(mutex_);
    if (!isRunning_ && !start(reason)) return 0;
    do {
        ++lastNumber_;
    } while (lastNumber_ == 0 || isCancelled_.contains(lastNumber_));
    made.emplace(lastNumber_, Load{std::move(transfer)});
    mark.emplace(lastNumber_, false);
    isCancelled_.insert(mark.extract(mark.begin()));
    arrivals_.insert(made.extract(made.begin()));
    wake();
    return lastNumber_;
}

void NetWorker::cancel(std::uint64_t number) noexcept {
    const std::lock_guard guard(mutex_);
    const auto found = isCancelled_.find(static_cast<std::uint32_t>(number));
    if (found == isCancelled_.end()) return;
    found->second = true;
    hasCancellations_ = true;
    wake();
}

// With the lock held.
bool NetWorker::start(char* reason) {
    const auto explain = [reason](const char* what, const char* why) {
        std::snprintf(reason, kUtiliaNetReasonSize, "%s: %s", what, why);
        return false;
    };
    static const CURLcode initialised = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (initialised != CURLE_OK) return explain("libcurl", curl_easy_strerror(initialised));
    // After libcurl's, and so before what its libraries have registered to be run at the end.
    static const int registered = std::atexit(&NetWorker::parkAtExit);
    if (registered != 0) return explain("atexit", std::strerror(ENOMEM));
    epoll_ = UniqueFd(epoll_create1(EPOLL_CLOEXEC));
    if (!epoll_) return explain("epoll_create1", std::strerror(errno));
    wakeUp_ = UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!wakeUp_) return explain("eventfd", std::strerror(errno));
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = kOrders;
    if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, wakeUp_.get(), &event) != 0)
        return explain("epoll_ctl", std::strerror(errno));
    process_ = getpid();
    if (const int error = startServiceThread("utilia-web", [this] { run(); }); error != 0) {
        process_ = 0;
        return explain("a thread", std::strerror(error));
    }
    isRunning_ = true;
    return true;
}

void NetWorker::wake() noexcept {
    const std::uint64_t one = 1;
    // It fails when the thread has been woken four billion times and has not looked.
    if (write(wakeUp_.get(), &one, sizeof one) < 0) return;
}

void NetWorker::parkAtExit() {
    NetWorker& worker = shared();
    if (worker.isInForkedChild()) return;
    std::unique_lock guard(worker.mutex_);
    if (!worker.isRunning_ || worker.thread_ == std::this_thread::get_id()) return;
    worker.isEnding_ = true;
    worker.wake();
    worker.parked_.wait_for(guard, kLongestParking, [&worker] { return worker.isParked_; });
}

void NetWorker::run() {
    {
        const std::lock_guard guard(mutex_);
        thread_ = std::this_thread::get_id();
    }
    idleSince_ = Clock::now();
    for (;;) {
        try {
            turn();
        } catch (const std::bad_alloc&) {
            // Nothing is lost by then: what was to be done is still where it was.
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
}

void NetWorker::turn() {
    takeOrders();
    askDesktopIfNeeded();
    sortArrived();
    beginWaiting();
    serveSockets(timeUntilNextTask());
    endTransfers();
    endSilent();
    closeIdleConnections();
}

void NetWorker::takeOrders() {
    bool hasCancelled = false;
    {
        std::unique_lock guard(mutex_);
        if (isEnding_) {
            isParked_ = true;
            parked_.notify_all();
            guard.unlock();
            for (;;) pause();
        }
        if (isDesktopHeard_) {
            desktop_ = std::move(heard_);
            isDesktopHeard_ = false;
            isAskingDesktop_ = false;
            desktopAsked_ = Clock::now();
        }
        arrived_.merge(arrivals_);
        hasCancelled = std::exchange(hasCancellations_, false);
    }
    if (hasCancelled) endCancelled();
}

void NetWorker::askDesktopIfNeeded() {
    if (arrived_.empty() || isAskingDesktop_) return;
    if (desktopAsked_ && Clock::now() < *desktopAsked_ + kDesktopRemembered) return;
    const bool isNeeded = std::any_of(arrived_.begin(), arrived_.end(), [](const auto& each) {
        return each.second.transfer->asksDesktop();
    });
    if (!isNeeded) return;
    const int error = startServiceThread("utilia-proxies", [this] {
        ProxySettings settings;
        try {
            settings = askDesktop();
        } catch (const std::bad_alloc&) {
            // As if there were no answer.
        }
        const std::lock_guard guard(mutex_);
        heard_ = std::move(settings);
        isDesktopHeard_ = true;
        wake();
    });
    isAskingDesktop_ = error == 0;
    if (error != 0) desktopAsked_ = Clock::now();
}

void NetWorker::sortArrived() {
    for (auto next = arrived_.begin(); next != arrived_.end();) {
        const auto load = next++;
        Transfer& transfer = *load->second.transfer;
        if (transfer.asksDesktop() && isAskingDesktop_) continue;
        Server& server = servers_[transfer.server()];
        server.waiting.insert(arrived_.extract(load));
    }
}

void NetWorker::beginWaiting() {
    if (isSuspect_) {
        if (!active_.empty()) return;
        dropMulti();
    }
    for (auto next = servers_.begin(); next != servers_.end();) {
        const auto entry = next++;
        Server& server = entry->second;
        while (!server.waiting.empty() && server.active < kMostActiveOfServer &&
               active_.size() < kMostActive) {
            const auto load = server.waiting.begin();
            if (begin(load->first, load->second)) {
                load->second.server = &server;
                ++server.active;
                active_.insert(server.waiting.extract(load));
            } else {
                end(server.waiting, load);
            }
        }
        if (server.active == 0 && server.waiting.empty()) servers_.erase(entry);
    }
}

// False when the load has failed.
bool NetWorker::begin(std::uint32_t number, Load& load) {
    if (spare_.empty()) {
        load.easy.reset(curl_easy_init());
    } else {
        load.easy = std::move(spare_.back());
        spare_.pop_back();
    }
    if (!makeMulti() || !load.easy) {
        load.transfer->fail(URLErrorCode::Unknown, "out of memory");
        return false;
    }
    if (!load.transfer->prepare(load.easy.get(), number, desktop_) || !hand(load)) return false;
    nextCheck_ = std::min(nextCheck_, load.transfer->earliestDeadline());
    return true;
}

bool NetWorker::hand(Load& load) {
    if (curl_multi_add_handle(multi_.get(), load.easy.get()) == CURLM_OK) return true;
    isSuspect_ = true;
    load.transfer->fail(URLErrorCode::Unknown, "out of memory");
    return false;
}

bool NetWorker::makeMulti() {
    if (multi_) return true;
    multi_.reset(curl_multi_init());
    if (!multi_) return false;
    idleSince_ = Clock::now();
    spare_.reserve(kMostSpare);
    CURLM* const multi = multi_.get();
    curl_multi_setopt(multi, CURLMOPT_SOCKETFUNCTION, &NetWorker::watchSocket);
    curl_multi_setopt(multi, CURLMOPT_SOCKETDATA, this);
    curl_multi_setopt(multi, CURLMOPT_TIMERFUNCTION, &NetWorker::setTimer);
    curl_multi_setopt(multi, CURLMOPT_TIMERDATA, this);
    curl_multi_setopt(multi, CURLMOPT_MAX_TOTAL_CONNECTIONS, kMostConnections);
    curl_multi_setopt(multi, CURLMOPT_MAXCONNECTS, kMostConnections);
    curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, kMostConnectionsOfHost);
    return true;
}

int NetWorker::watchSocket(CURL* easy, curl_socket_t socket, int what, void* self, void*) {
    const int epoll = static_cast<NetWorker*>(self)->epoll_.get();
    if (what == CURL_POLL_REMOVE) {
        epoll_ctl(epoll, EPOLL_CTL_DEL, socket, nullptr);
        return 0;
    }
    void* number = nullptr;
    curl_easy_getinfo(easy, CURLINFO_PRIVATE, &number);
    epoll_event event{};
    event.data.u64 =
        socketKey(socket, static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(number)));
    if (what & CURL_POLL_IN) event.events |= EPOLLIN;
    if (what & CURL_POLL_OUT) event.events |= EPOLLOUT;
    if (epoll_ctl(epoll, EPOLL_CTL_MOD, socket, &event) == 0) return 0;
    return epoll_ctl(epoll, EPOLL_CTL_ADD, socket, &event) == 0 ? 0 : -1;
}

int NetWorker::setTimer(CURLM*, long milliseconds, void* self) {
    auto& deadline = static_cast<NetWorker*>(self)->curlDeadline_;
    deadline.reset();
    if (milliseconds >= 0) deadline = Clock::now() + std::chrono::milliseconds(milliseconds);
    return 0;
}

void NetWorker::serveSockets(int timeout) {
    std::array<epoll_event, 64> events;
    const int count = epoll_wait(epoll_.get(), events.data(), events.size(), timeout);
    int running = 0;
    CURLMcode code = CURLM_OK;
    for (int i = 0; i < count && code == CURLM_OK && !isEnding_; ++i) {
        const epoll_event& event = events[static_cast<std::size_t>(i)];
        if (event.data.u64 == kOrders) {
            std::uint64_t times = 0;
            if (read(wakeUp_.get(), &times, sizeof times) < 0) continue;
            continue;
        }
        int what = 0;
        if (event.events & EPOLLIN) what |= CURL_CSELECT_IN;
        if (event.events & EPOLLOUT) what |= CURL_CSELECT_OUT;
        if (event.events & (EPOLLERR | EPOLLHUP)) what |= CURL_CSELECT_ERR;
        if (event.events & EPOLLIN) {
            const auto load = active_.find(static_cast<std::uint32_t>(event.data.u64 >> 32));
            if (load != active_.end()) load->second.transfer->dataArrived();
        }
        if (!multi_) continue;
        code = curl_multi_socket_action(multi_.get(), static_cast<int>(event.data.u64 & 0xFFFFFFFF),
                                        what, &running);
    }
    if (isEnding_) return;
    if (code == CURLM_OK && multi_ && curlDeadline_ && *curlDeadline_ <= Clock::now()) {
        curlDeadline_.reset();
        code = curl_multi_socket_action(multi_.get(), CURL_SOCKET_TIMEOUT, 0, &running);
    }
    if (code != CURLM_OK) abandonLoads();
}

void NetWorker::abandonLoads() {
    for (auto next = active_.begin(); next != active_.end();) {
        const auto load = next++;
        load->second.transfer->fail(URLErrorCode::Unknown, "out of memory");
        end(active_, load);
    }
    dropMulti();
}

// With all its connections, and what libcurl remembers of them.
void NetWorker::dropMulti() {
    spare_.clear();
    multi_.reset();
    curlDeadline_.reset();
    isSuspect_ = false;
}

void NetWorker::endTransfers() {
    if (!multi_) return;
    int left = 0;
    while (const CURLMsg* message = curl_multi_info_read(multi_.get(), &left)) {
        if (message->msg != CURLMSG_DONE) continue;
        CURL* const easy = message->easy_handle;
        const CURLcode code = message->data.result;
        isSuspect_ |= code == CURLE_OUT_OF_MEMORY;
        void* number = nullptr;
        curl_easy_getinfo(easy, CURLINFO_PRIVATE, &number);
        const auto load =
            active_.find(static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(number)));
        if (load == active_.end()) continue;
        if (load->second.transfer->goOn(easy, code)) {
            curl_multi_remove_handle(multi_.get(), easy);
            if (hand(load->second)) continue;
        }
        end(active_, load);
    }
}

// Tells the client when nothing of the load is in the worker's hands any more.
void NetWorker::end(Loads& of, Loads::iterator load) {
    auto ended = of.extract(load);
    if (EasyHandle easy = std::move(ended.mapped().easy)) {
        if (multi_) curl_multi_remove_handle(multi_.get(), easy.get());
        if (spare_.size() < std::min(kMostSpare, spare_.capacity())) {
            curl_easy_reset(easy.get());
            spare_.push_back(std::move(easy));
        }
    }
    if (Server* const server = ended.mapped().server) {
        --server->active;
        if (server->active == 0 && server->waiting.empty())
            servers_.erase(servers_.find(ended.mapped().transfer->server()));
        if (active_.empty()) idleSince_ = Clock::now();
    }
    {
        const std::lock_guard guard(mutex_);
        isCancelled_.erase(ended.key());
    }
    ended.mapped().transfer->finish();
}

void NetWorker::endIf(const std::function<bool(std::uint32_t number, Transfer& transfer)>& isOver) {
    const auto endIn = [&](Loads& loads) {
        for (auto next = loads.begin(); next != loads.end();) {
            const auto load = next++;
            if (isOver(load->first, *load->second.transfer)) end(loads, load);
        }
    };
    endIn(arrived_);
    endIn(active_);
    for (auto next = servers_.begin(); next != servers_.end();) {
        const auto server = next++;
        endIn(server->second.waiting);
        if (server->second.active == 0 && server->second.waiting.empty()) servers_.erase(server);
    }
}

void NetWorker::endCancelled() {
    endIf([this](std::uint32_t number, Transfer& transfer) {
        {
            const std::lock_guard guard(mutex_);
            if (!isCancelled_.at(number)) return false;
        }
        transfer.fail(URLErrorCode::Cancelled);
        return true;
    });
}

// Looks at all loads only when one of them may be late.
void NetWorker::endSilent() {
    const auto now = Clock::now();
    if (now < nextCheck_) return;
    nextCheck_ = Clock::time_point::max();
    // Whoever waits for a connection waits for somebody who has one. Otherwise libcurl has lost it,
    // as can happen when memory runs out.
    const bool isAnyBegun = std::any_of(active_.begin(), active_.end(), [](const auto& each) {
        return each.second.transfer->hasBegun();
    });
    endIf([this, now, isAnyBegun](std::uint32_t number, Transfer& transfer) {
        const bool isLost =
            !isAnyBegun && active_.contains(number) && transfer.earliestDeadline() <= now;
        isSuspect_ |= isLost;
        if (transfer.deadline() <= now || isLost) {
            transfer.fail(URLErrorCode::TimedOut);
            return true;
        }
        nextCheck_ = std::min(nextCheck_, std::max(transfer.earliestDeadline(),
                                                   now + std::chrono::milliseconds(100)));
        return false;
    });
}

int NetWorker::timeUntilNextTask() const {
    Clock::time_point next = nextCheck_;
    if (curlDeadline_) next = std::min(next, *curlDeadline_);
    if (multi_ && active_.empty()) next = std::min(next, idleSince_ + kIdleConnectionsKept);
    return next == Clock::time_point::max() ? kForever : millisecondsUntil(next, Clock::now());
}

// Connections and what libcurl remembers of them are not kept for loads that may never come.
void NetWorker::closeIdleConnections() {
    if (!multi_ || !active_.empty()) return;
    if (Clock::now() < idleSince_ + kIdleConnectionsKept) return;
    dropMulti();
}

}  // namespace utilia::platform::net
