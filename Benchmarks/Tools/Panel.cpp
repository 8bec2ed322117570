#include "Benchmarks/Tools/Panel.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace utilia::bench {
namespace {

constexpr const char* kWatcher = "org.kde.StatusNotifierWatcher";
constexpr const char* kWatcherPath = "/StatusNotifierWatcher";

int getTrue(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
            sd_bus_error*) {
    return sd_bus_message_append(reply, "b", 1);
}
int getVersion(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
               sd_bus_error*) {
    return sd_bus_message_append(reply, "i", 0);
}

struct MessageDeleter {
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using MessagePointer = std::unique_ptr<sd_bus_message, MessageDeleter>;

}  // namespace

Panel::Panel(const std::string& busAddress) : bus_(connectToBus(busAddress)) {
    static const sd_bus_vtable table[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("RegisterStatusNotifierItem", "s", "", onRegister,
                      SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_PROPERTY("IsStatusNotifierHostRegistered", "b", getTrue, 0, 0),
        SD_BUS_PROPERTY("ProtocolVersion", "i", getVersion, 0, 0), SD_BUS_VTABLE_END};
    checkBus(sd_bus_add_object_vtable(bus_.get(), nullptr, kWatcherPath, kWatcher, table, this),
             "add_object_vtable");
    checkBus(sd_bus_add_match(bus_.get(), nullptr,
                              "type='signal',interface='com.canonical.dbusmenu'", onChange, this),
             "sd_bus_add_match");
    checkBus(sd_bus_request_name(bus_.get(), kWatcher, 0), "sd_bus_request_name");
}

int Panel::onRegister(sd_bus_message* message, void*, sd_bus_error*) {
    return sd_bus_reply_method_return(message, "");
}

int Panel::onChange(sd_bus_message*, void* data, sd_bus_error*) {
    ++static_cast<Panel*>(data)->updates_;
    return 0;
}

bool Panel::step(std::uint64_t microseconds) {
    const int result = sd_bus_process(bus_.get(), nullptr);
    checkBus(result, "sd_bus_process");
    if (result > 0) return true;
    checkBus(sd_bus_wait(bus_.get(), microseconds), "sd_bus_wait");
    return false;
}

void Panel::serve(double seconds) {
    const std::uint64_t end = nanoseconds() + static_cast<std::uint64_t>(seconds * 1e9);
    for (std::uint64_t now = nanoseconds(); now < end; now = nanoseconds())
        step((end - now) / 1000 + 1);
}

void Panel::serveUntil(const std::function<bool()>& done) {
    waitUntil([&] {
        while (step(1000)) {
        }
        return done();
    });
}

void Panel::forEachTool(const std::function<void(const Tool&)>& body) {
    sd_bus_message* answer = nullptr;
    if (sd_bus_call_method(bus_.get(), "com.korvane.utilia", "/com/korvane/utilia/Tools",
                           "com.korvane.utilia.Tools1", "List", nullptr, &answer, "") < 0)
        return;
    const MessagePointer owned(answer);
    checkBus(sd_bus_message_enter_container(answer, 'a', "a{sv}"), "List");
    while (sd_bus_message_enter_container(answer, 'a', "{sv}") > 0) {
        Tool tool;
        while (sd_bus_message_enter_container(answer, 'e', "sv") > 0) {
            const char* key = nullptr;
            const char* text = nullptr;
            checkBus(sd_bus_message_read(answer, "s", &key), "a key of the list");
            if (std::strcmp(key, "identifier") == 0 || std::strcmp(key, "text") == 0) {
                checkBus(sd_bus_message_read(answer, "v", "s", &text), "a text of the list");
                (std::strcmp(key, "text") == 0 ? tool.text : tool.identifier) = text;
            } else if (std::strcmp(key, "running") == 0) {
                int isRunning = 0;
                checkBus(sd_bus_message_read(answer, "v", "b", &isRunning), "running");
                tool.isRunning = isRunning != 0;
            } else {
                checkBus(sd_bus_message_skip(answer, "v"), "a value of the list");
            }
            checkBus(sd_bus_message_exit_container(answer), "an entry of the list");
        }
        checkBus(sd_bus_message_exit_container(answer), "a tool of the list");
        body(tool);
    }
}

std::size_t Panel::toolsThatSay(const std::string& text) {
    std::size_t count = 0;
    forEachTool([&](const Tool& tool) { count += tool.isRunning && tool.text == text; });
    return count;
}

bool Panel::runs(const std::string& identifier) {
    bool isRunning = false;
    forEachTool(
        [&](const Tool& tool) { isRunning |= tool.isRunning && tool.identifier == identifier; });
    return isRunning;
}

}  // namespace utilia::bench
