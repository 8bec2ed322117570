#include "Applications/utiliactl/WatchCommand.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <optional>
#include <string>

#include <gio/gio.h>

#include "Applications/utiliactl/JsonText.h"
#include "Applications/utiliactl/PlainText.h"
#include "Applications/utiliactl/SessionBus.h"
#include "Common/UtiliaCommon/ToolDataProvider/PortProtocol.h"

namespace utilia::control {
namespace {

// What the agent publishes: Documentation/Formats/PublishedTools.md.
constexpr const char* kObject = "/com/korvane/utilia/Tools";
constexpr const char* kInterface = "com.korvane.utilia.Tools1";
constexpr int kPatience = 10'000;  // milliseconds

std::string textOf(GVariant* entry, const char* key) {
    const char* text = nullptr;
    return g_variant_lookup(entry, key, "&s", &text) ? text : "";
}

// "active", "permanent", "off", or why the tool is not ready.
std::string stateOf(GVariant* entry) {
    const std::string condition = textOf(entry, "condition");
    if (condition != "ready") return condition;
    gboolean isRunning = FALSE;
    g_variant_lookup(entry, "running", "b", &isRunning);
    if (!isRunning) return "off";
    guint64 status = 0;
    g_variant_lookup(entry, "status", "t", &status);
    return status == 0 ? "inactive" : status == 1 ? "active" : "permanent";
}

Json jsonOf(GVariant* entry) {
    gboolean isRunning = FALSE;
    guint64 status = 0;
    g_variant_lookup(entry, "running", "b", &isRunning);
    g_variant_lookup(entry, "status", "t", &status);
    Json json{{"event", "tool"}};
    for (const char* const key : {"identifier", "name", "path", "condition", "reason"})
        json[key] = textOf(entry, key);
    json["running"] = isRunning == TRUE;
    json["status"] = status;
    json["text"] = textOf(entry, "text");
    return json;
}

class Watch final {
public:
    Watch(GDBusConnection* bus, bool json) : bus_(bus), json_(json) {}
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    ~Watch() {
        g_cancellable_cancel(cancelled_);
        g_bus_unwatch_name(name_);
        g_dbus_connection_signal_unsubscribe(bus_, signals_);
        g_signal_handler_disconnect(bus_, closed_);
        g_object_unref(cancelled_);
        g_main_loop_unref(loop_);
    }

    // Until the bus goes away, or nobody reads any more.
    Result<void> run() {
        const std::string agent(kAgentBundleIdentifier);
        closed_ = g_signal_connect(bus_, "closed", G_CALLBACK(&Watch::busClosed), this);
        signals_ = g_dbus_connection_signal_subscribe(bus_, agent.c_str(), kInterface, nullptr,
                                                      kObject, nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
                                                      &Watch::heard, this, nullptr);
        name_ = g_bus_watch_name_on_connection(bus_, agent.c_str(), G_BUS_NAME_WATCHER_FLAGS_NONE,
                                               &Watch::agentAppeared, &Watch::agentVanished, this,
                                               nullptr);
        if (g_dbus_connection_is_closed(bus_)) return *lost();
        g_main_loop_run(loop_);
        return *end_;
    }

private:
    static std::optional<Error> lost() {
        return Error::utilia(UtiliaErrorCode::Unavailable, "the session's bus has gone");
    }
    void end(Error error) {
        if (!end_) end_ = std::move(error);
        g_main_loop_quit(loop_);
    }
    void write(const std::string& line) {
        if (std::fputs((line + "\n").c_str(), stdout) == EOF || std::fflush(stdout) != 0)
            end(Error::posix(errno, "write", "standard output"));
    }
    void tell(const Json& json, const std::string& text) { write(json_ ? json.dump() : text); }
    void tellTool(GVariant* entry) {
        std::string line = stateOf(entry);
        constexpr std::size_t kStateWidth = 12;
        constexpr std::size_t kNameWidth = 32;
        line.resize(std::max(line.size() + 1, kStateWidth), ' ');
        line += harmless(textOf(entry, "name"));
        const std::string text = harmless(textOf(entry, "text"));
        if (!text.empty()) {
            line.resize(std::max(line.size() + 1, kNameWidth), ' ');
            line += text;
        }
        tell(jsonOf(entry), line);
    }

    static void busClosed(GDBusConnection*, gboolean, GError*, gpointer self) {
        static_cast<Watch*>(self)->end(*lost());
    }
    static void agentAppeared(GDBusConnection* bus, const char* name, const char*, gpointer self) {
        auto& watch = *static_cast<Watch*>(self);
        watch.tell({{"event", "agent"}, {"running", true}}, "The agent runs.");
        g_dbus_connection_call(bus, name, kObject, kInterface, "List", nullptr,
                               G_VARIANT_TYPE("(aa{sv})"), G_DBUS_CALL_FLAGS_NONE, kPatience,
                               watch.cancelled_, &Watch::listed, self);
    }
    static void agentVanished(GDBusConnection*, const char*, gpointer self) {
        static_cast<Watch*>(self)->tell({{"event", "agent"}, {"running", false}},
                                        "The agent does not run.");
    }
    static void listed(GObject* bus, GAsyncResult* result, gpointer self) {
        GError* error = nullptr;
        GVariant* const answer =
            g_dbus_connection_call_finish(G_DBUS_CONNECTION(bus), result, &error);
        if (!answer) {
            // The watch may be gone by then.
            if (!g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CANCELLED)) {
                static_cast<Watch*>(self)->tell({{"event", "error"}, {"message", error->message}},
                                                std::string("The agent's list cannot be read: ") +
                                                    error->message);
            }
            g_error_free(error);
            return;
        }
        GVariantIter* entries = nullptr;
        g_variant_get(answer, "(aa{sv})", &entries);
        while (GVariant* const entry = g_variant_iter_next_value(entries)) {
            static_cast<Watch*>(self)->tellTool(entry);
            g_variant_unref(entry);
        }
        g_variant_iter_free(entries);
        g_variant_unref(answer);
    }
    static void heard(GDBusConnection*, const char*, const char*, const char*, const char* signal,
                      GVariant* parameters, gpointer self) {
        auto& watch = *static_cast<Watch*>(self);
        const std::string name = signal;
        if (name == "ToolChanged" && g_variant_is_of_type(parameters, G_VARIANT_TYPE("(a{sv})"))) {
            GVariant* const entry = g_variant_get_child_value(parameters, 0);
            watch.tellTool(entry);
            g_variant_unref(entry);
        } else if (name == "ToolRemoved" &&
                   g_variant_is_of_type(parameters, G_VARIANT_TYPE("(s)"))) {
            const char* identifier = nullptr;
            g_variant_get(parameters, "(&s)", &identifier);
            std::string line = "removed";
            line.resize(12, ' ');
            watch.tell({{"event", "removed"}, {"identifier", identifier}},
                       line + harmless(identifier));
        }
    }

    GDBusConnection* bus_;
    bool json_;
    GMainLoop* loop_ = g_main_loop_new(nullptr, FALSE);
    GCancellable* cancelled_ = g_cancellable_new();
    gulong closed_ = 0;
    guint signals_ = 0;
    guint name_ = 0;
    std::optional<Error> end_;
};

}  // namespace

CLI::App* WatchCommand::declare(CLI::App& program) {
    CLI::App* const command = program.add_subcommand(
        "watch", "Follows what the agent shows of its tools, until it is interrupted.");
    command->add_flag("--json", json_, "Write one JSON object a line");
    command->footer("Begins with every tool of the agent's list, and tells each change as it "
                    "happens. Waits for an agent that does not run.");
    return command;
}

Result<void> WatchCommand::run(std::ostream&) {
    const auto bus = connectToSessionBus();
    if (!bus) return bus.error();
    return Watch(bus->get(), json_).run();
}

}  // namespace utilia::control
