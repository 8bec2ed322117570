#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <curl/curl.h>
#include <sys/types.h>

#include "Common/Platform/Linux/Modules/Net/NetModule.h"
#include "Common/Platform/Linux/Modules/Net/ProxySettings.h"
#include "Common/Platform/Linux/Modules/Net/Transfer.h"
#include "Common/Platform/UniqueFd.h"

namespace utilia::platform::net {

// The thread on which all loads of the process are carried.
//
// Threads: any, for the public functions.
class NetWorker final {
public:
    // Started with the first load, never destroyed.
    static NetWorker& shared();

    bool isInForkedChild() const;
    // The load's number; 0, and why in `reason`, when it cannot begin. May throw std::bad_alloc.
    std::uint64_t add(std::unique_ptr<Transfer> transfer, char* reason);
    void cancel(std::uint64_t number) noexcept;

private:
    struct Server;
    struct Load {
        std::unique_ptr<Transfer> transfer;
        EasyHandle easy = nullptr;  // while it has its turn
        Server* server = nullptr;   // the same
    };
    // By number, and so in the order in which they came. A load moves from one to the next with its
    // node, which needs no memory.
    using Loads = std::map<std::uint32_t, Load>;
    struct Server {
        Loads waiting;  // for their turn
        int active = 0;
    };
    struct MultiCleanup {
        void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
    };

    NetWorker() = default;
    bool start(char* reason);
    void wake() noexcept;
    static void parkAtExit();

    // On the worker's thread:
    void run();
    void turn();
    void takeOrders();
    void askDesktopIfNeeded();
    void sortArrived();
    void beginWaiting();
    bool begin(std::uint32_t number, Load& load);
    bool hand(Load& load);
    bool makeMulti();
    void serveSockets(int timeout);
    void endTransfers();
    void end(Loads& of, Loads::iterator load);
    void endIf(const std::function<bool(std::uint32_t number, Transfer& transfer)>& isOver);
    void endCancelled();
    void endSilent();
    int timeUntilNextTask() const;
    void closeIdleConnections();
    void abandonLoads();
    void dropMulti();
    static int watchSocket(CURL* easy, curl_socket_t socket, int what, void* self, void*);
    static int setTimer(CURLM*, long milliseconds, void* self);

    std::mutex mutex_;
    bool isRunning_ = false;
    std::atomic<pid_t> process_ = 0;
    std::uint32_t lastNumber_ = 0;
    Loads arrivals_;
    std::map<std::uint32_t, bool> isCancelled_;  // all loads that are not over
    bool hasCancellations_ = false;
    bool isDesktopHeard_ = false;  // its answer has come
    ProxySettings heard_;
    std::atomic<bool> isEnding_ = false;
    bool isParked_ = false;
    std::condition_variable parked_;
    std::thread::id thread_;

    UniqueFd epoll_;
    UniqueFd wakeUp_;

    // The worker's thread only:
    std::unique_ptr<CURLM, MultiCleanup> multi_;
    // When libcurl runs out of memory in the middle of something, it divides by the size of tables
    // that it has taken down, and counts connections that it has not got. So a new one follows when
    // what has begun with this one is over.
    bool isSuspect_ = false;
    std::vector<EasyHandle> spare_;
    Loads arrived_;  // before it is known which proxies they use
    std::map<std::string, Server, std::less<>> servers_;  // those with loads
    Loads active_;
    std::optional<Clock::time_point> curlDeadline_;
    Clock::time_point nextCheck_ = Clock::time_point::max();
    Clock::time_point idleSince_;
    bool isAskingDesktop_ = false;
    std::optional<Clock::time_point> desktopAsked_;
    ProxySettings desktop_;
};

}  // namespace utilia::platform::net
