#pragma once

#include <cerrno>
#include <memory>
#include <string>

#include <systemd/sd-bus.h>

#include "Benchmarks/Support/Measure.h"

// Connections to a private bus (BusHost.h).

namespace utilia::bench {

inline void checkBus(int result, const char* what) {
    if (result >= 0) return;
    errno = -result;
    fail(what);
}

struct BusDeleter {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
using BusPointer = std::unique_ptr<sd_bus, BusDeleter>;

inline BusPointer connectToBus(const std::string& address) {
    sd_bus* bus = nullptr;
    checkBus(sd_bus_new(&bus), "sd_bus_new");
    BusPointer owned(bus);
    checkBus(sd_bus_set_address(bus, address.c_str()), "sd_bus_set_address");
    checkBus(sd_bus_set_bus_client(bus, 1), "sd_bus_set_bus_client");
    checkBus(sd_bus_start(bus), "sd_bus_start");
    return owned;
}

}  // namespace utilia::bench
