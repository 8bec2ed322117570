#include "Benchmarks/Messages/BusHost.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include "Benchmarks/Support/Measure.h"

// dbus-daemon is started from a configuration file. dbus-broker has none: it is told by a
// controller, normally systemd's launcher, over a socket that it inherits. The controller here
// speaks just enough of that protocol to hand over one listening socket and a policy that allows
// everything.

namespace utilia::bench {
namespace {

constexpr const char* kDaemonConfiguration = R"(<!DOCTYPE busconfig PUBLIC
 "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=%SOCKET%</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
  <limit name="max_incoming_bytes">1000000000</limit>
  <limit name="max_outgoing_bytes">1000000000</limit>
  <limit name="max_message_size">1000000000</limit>
  <limit name="max_completed_connections">100000</limit>
  <limit name="max_connections_per_user">100000</limit>
</busconfig>
)";

// Rules for one user: connect, own, send, receive.
#define UTILIA_RULES "bta(btbs)a(btssssuutt)a(btssssuutt)"
#define UTILIA_POLICY "a(u(" UTILIA_RULES "))a(buu(" UTILIA_RULES "))a(ss)b"

int listenAt(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) fail("the bus's socket path is too long");
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const int listener =
        check(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0), "socket");
    check(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), "bind");
    check(listen(listener, 256), "listen");
    return listener;
}

// Newer brokers want the bus's type at the end of the policy.
int addListener(sd_bus* controller, int listener, bool withType) {
    sd_bus_message* call = nullptr;
    int result = sd_bus_message_new_method_call(controller, &call, nullptr, "/org/bus1/DBus/Broker",
                                                "org.bus1.DBus.Broker", "AddListener");
    if (result < 0) return result;
    const auto everybody = UINT32_MAX;
    const std::uint64_t priority = 1, none = 0, any = UINT64_MAX;
    const char* empty = "";
    result = sd_bus_message_append(call, "oh", "/org/bus1/DBus/Listener/0", listener);
    if (result >= 0) {
        // One entry of each list: allowed (1), its priority, and names that match everything.
        result = sd_bus_message_append(
            call, "v", withType ? "(" UTILIA_POLICY "s)" : "(" UTILIA_POLICY ")", 1, everybody, 1,
            priority,                                                       //
            1, 1, priority, 1, empty,                                       //
            1, 1, priority, empty, empty, empty, empty, 0u, 0u, none, any,  //
            1, 1, priority, empty, empty, empty, empty, 0u, 0u, none, any,  //
            0, 0, 0, "session");
    }
    if (result >= 0) result = sd_bus_call(controller, call, 5'000'000, nullptr, nullptr);
    sd_bus_message_unref(call);
    return result;
}

}  // namespace

BusHost::BusHost(BusKind kind, const std::string& folder) : owner_(getpid()) {
    // Not below the folder: a socket's path must be short.
    std::string place = std::filesystem::temp_directory_path() / "utilia-bus-XXXXXX";
    if (!mkdtemp(place.data())) fail("mkdtemp");
    socketPath_ = place + "/bus";
    address_ = "unix:path=" + socketPath_;
    if (kind == BusKind::Daemon) {
        startDaemon(folder);
    } else {
        startBroker();
    }
}

BusHost::~BusHost() {
    if (getpid() != owner_) return;
    if (controller_) sd_bus_unref(controller_);
    if (process_ > 0) endProgram(process_);
    unlink(socketPath_.c_str());
    rmdir(socketPath_.substr(0, socketPath_.rfind('/')).c_str());
}

void BusHost::startDaemon(const std::string& folder) {
    std::string text = kDaemonConfiguration;
    text.replace(text.find("%SOCKET%"), std::strlen("%SOCKET%"), socketPath_);
    const std::string configuration = folder + "/bus.conf";
    std::ofstream(configuration) << text;
    int ends[2];
    check(pipe(ends), "pipe");
    process_ = inChild([&] {
        // What it says about descriptor limits that it may not raise is no matter here.
        const std::string errors = folder + "/bus.log";
        dup2(check(open(errors.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600), "open"),
             STDERR_FILENO);
        const std::string option = "--config-file=" + configuration;
        const std::string print = "--print-address=" + std::to_string(ends[1]);
        execlp("dbus-daemon", "dbus-daemon", option.c_str(), "--nofork", "--nopidfile",
               print.c_str(), nullptr);
        fail("dbus-daemon");
    });
    close(ends[1]);
    // The address appears when the daemon listens.
    char first = 0;
    if (read(ends[0], &first, 1) != 1) fail("dbus-daemon did not start");
    close(ends[0]);
}

void BusHost::startBroker() {
    for (const bool withType : {true, false}) {
        const int listener = listenAt(socketPath_);
        int ends[2];
        check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends),
              "socketpair");
        process_ = inChild([&] {
            fcntl(ends[1], F_SETFD, 0);
            const std::string descriptor = std::to_string(ends[1]);
            execlp("dbus-broker", "dbus-broker", "--controller", descriptor.c_str(), "--machine-id",
                   "00112233445566778899aabbccddeeff", "--max-bytes", "1000000000", "--max-fds",
                   "10000", "--max-matches", "100000", "--max-objects", "100000", nullptr);
            fail("dbus-broker");
        });
        close(ends[1]);
        sd_bus_new(&controller_);
        sd_bus_set_fd(controller_, ends[0], ends[0]);
        sd_bus_start(controller_);
        const bool accepted = addListener(controller_, listener, withType) >= 0;
        close(listener);
        if (accepted) return;
        sd_bus_unref(controller_);
        controller_ = nullptr;
        endProgram(process_);
        unlink(socketPath_.c_str());
    }
    fail("dbus-broker took no listener");
}

}  // namespace utilia::bench
