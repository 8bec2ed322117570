#pragma once

#include <string>

#include <sys/types.h>

struct sd_bus;

namespace utilia::bench {

enum class BusKind { Broker, Daemon };

// A private message bus with the limits of a session bus, for as long as the object lives.
// Everybody may own any name and talk to everybody.
class BusHost final {
public:
    BusHost(BusKind kind, const std::string& folder);
    ~BusHost();
    BusHost(const BusHost&) = delete;
    BusHost& operator=(const BusHost&) = delete;

    const std::string& address() const { return address_; }

private:
    void startDaemon(const std::string& folder);
    void startBroker();

    std::string socketPath_;
    std::string address_;
    pid_t process_ = -1;
    sd_bus* controller_ = nullptr;
    pid_t owner_;
};

}  // namespace utilia::bench
