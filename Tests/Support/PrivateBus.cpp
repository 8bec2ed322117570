#include "Tests/Support/PrivateBus.h"

#include <fstream>
#include <stdexcept>

namespace utilia::test {

namespace fs = std::filesystem;

PrivateBus::PrivateBus(const fs::path& socket, Options options) : socket_(socket) {
    const std::string configuration = socket.string() + ".conf";
    std::ofstream(configuration)
        << "<busconfig><type>session</type><listen>unix:path=" << socket.string()
        << "</listen><auth>EXTERNAL</auth><policy context='default'><allow user='*'/>"
           "<allow own='*'/><allow send_destination='*' eavesdrop='true'/>"
           "<allow eavesdrop='true'/></policy></busconfig>";
    daemon_ = ChildProcess::program(
        "/usr/bin/dbus-daemon",
        {"--config-file=" + configuration, "--nofork", "--nopidfile", "--print-address=3"},
        {.user = options.user});
    address_ = daemon_.waitForLine().value_or("");
    if (address_.empty()) throw std::runtime_error("no bus at " + socket.string());
}

PrivateBus::~PrivateBus() {
    daemon_.kill();
    std::error_code ignored;
    fs::remove(socket_, ignored);
}

ChildProcess PrivateBus::monitor(const std::string& rule) const {
    auto monitor = ChildProcess::program(
        "/bin/sh", {"-c", R"(exec dbus-monitor --address "$0" "$1" "$2" >&3)", address_, rule,
                    "type='signal',interface='com.example.monitor'"});
    // It has no word for being ready; so it is sent something until it shows that, and then what of this is still on
    // its way to it.
    for (int tries = 0; tries < 600; ++tries) {
        const std::string member = "areYouThere" + std::to_string(tries) + "End";
        ChildProcess::program("/usr/bin/dbus-send", {"--bus=" + address_, "--type=signal", "/",
                                                     "com.example.monitor." + member})
            .waitForExit();
        bool isThere = false;
        while (const auto line =
                   monitor.waitForLine(std::chrono::milliseconds(isThere ? 60'000 : 100))) {
            if (line->find(member) != std::string::npos) return monitor;
            isThere = isThere || line->find("areYouThere") != std::string::npos;
        }
    }
    throw std::runtime_error("dbus-monitor does not listen");
}

std::string nextLineWith(ChildProcess& monitor, std::string_view text) {
    while (const auto line = monitor.waitForLine()) {
        if (line->find(text) != std::string::npos) return *line;
    }
    return "";
}

}  // namespace utilia::test
