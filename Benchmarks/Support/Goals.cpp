#include "Benchmarks/Support/Goals.h"

#include <functional>
#include <optional>
#include <vector>

namespace utilia::bench {
namespace {

using Figure = std::function<std::optional<double>(const Results&)>;

struct Goal {
    const char* part;
    std::string text;
    enum { AtMost, AtLeast } sense;
    double wanted;
    const char* unit;
    Figure figure;
};

Figure value(std::string measurement, std::string variant, std::string metric) {
    return [=](const Results& results) { return results.median(measurement, variant, metric); };
}

Figure combined(Figure left, Figure right, double (*combine)(double, double)) {
    return [=](const Results& results) -> std::optional<double> {
        const auto a = left(results), b = right(results);
        if (!a || !b) return std::nullopt;
        return combine(*a, *b);
    };
}

Figure ratio(Figure dividend, Figure divisor) {
    return combined(std::move(dividend), std::move(divisor),
                    [](double a, double b) { return a / b; });
}
Figure sum(Figure left, Figure right) {
    return combined(std::move(left), std::move(right), [](double a, double b) { return a + b; });
}
Figure difference(Figure left, Figure right) {
    return combined(std::move(left), std::move(right), [](double a, double b) { return a - b; });
}

void addMessageGoals(std::vector<Goal>& goals) {
    struct Latency {
        const char* size;
        double overSocket, overBroker, overDaemon;  // 0: no goal
    };
    for (const Latency& one : {Latency{"64 B", 2.2, 3, 4}, Latency{"4 KiB", 2.2, 3, 4},
                               Latency{"64 KiB", 1.3, 0, 0}, Latency{"1 MiB", 2.5, 0, 3.5}}) {
        const std::string measurement = std::string("latency ") + one.size;
        const auto p50 = [&measurement](const char* variant) {
            return value(measurement, variant, "p50_us");
        };
        const std::string subject = std::string("one-way message, ") + one.size + ", one core: ";
        goals.push_back({"messages", subject + "against the raw socket", Goal::AtMost,
                         one.overSocket, " ×", ratio(p50("utilia"), p50("socket"))});
        if (one.overBroker > 0) {
            goals.push_back({"messages", subject + "faster than dbus-broker", Goal::AtLeast,
                             one.overBroker, " ×", ratio(p50("dbus-broker"), p50("utilia"))});
        }
        if (one.overDaemon > 0) {
            goals.push_back({"messages", subject + "faster than dbus-daemon", Goal::AtLeast,
                             one.overDaemon, " ×", ratio(p50("dbus-daemon"), p50("utilia"))});
        }
    }
    const auto flood = [](const char* variant, const char* metric) {
        return value("50 senders 64 B", variant, metric);
    };
    const std::string subject = "50 senders to one agent, 64 B: ";
    goals.push_back({"messages", subject + "messages a second", Goal::AtLeast, 500'000, "",
                     flood("utilia", "per_s")});
    goals.push_back({"messages", subject + "lost", Goal::AtMost, 0, "", flood("utilia", "lost")});
    goals.push_back({"messages", subject + "least against most served", Goal::AtLeast, 0.8, "",
                     flood("utilia", "fairness")});
    goals.push_back({"messages", subject + "longest send", Goal::AtMost, 50, " ms",
                     flood("utilia", "longest_send_ms")});
    goals.push_back({"messages", subject + "against dbus-broker", Goal::AtLeast, 4, " ×",
                     ratio(flood("utilia", "per_s"), flood("dbus-broker", "per_s"))});
    goals.push_back({"messages", "50 senders to one agent, 4 KiB: messages a second", Goal::AtLeast,
                     250'000, "", value("50 senders 4 KiB", "utilia", "per_s")});
}

void addStoreGoals(std::vector<Goal>& goals) {
    const auto update = [](const char* metric) { return value("update", "in turns", metric); };
    goals.push_back(
        {"store",
         "update of one record of 50, synced: against the bare replace and libplist's own time",
         Goal::AtMost, 1.25, " ×",
         ratio(update("utilia_us"), sum(update("replace_us"), update("libplist_us")))});
    const auto inMemory = [](const char* metric) {
        return value("update in memory", "in turns", metric);
    };
    goals.push_back(
        {"store", "the same in memory, where syncing is free", Goal::AtMost, 1.25, " ×",
         ratio(inMemory("utilia_us"), sum(inMemory("replace_us"), inMemory("libplist_us")))});
    goals.push_back({"store", "the same: faster than a key file", Goal::AtLeast, 2.3, " ×",
                     ratio(inMemory("keyfile_us"), inMemory("utilia_us"))});
    goals.push_back({"store", "8 tight writers in memory: least against most served", Goal::AtLeast,
                     0.9, "", value("8 tight writers in memory", "utilia", "fairness")});
    goals.push_back({"store", "8 tight writers: longest wait", Goal::AtMost, 20, " ms",
                     value("8 tight writers", "utilia", "longest_wait_ms")});
    goals.push_back({"store", "8 tight writers in memory: longest wait", Goal::AtMost, 20, " ms",
                     value("8 tight writers in memory", "utilia", "longest_wait_ms")});
    goals.push_back({"store", "8 tight writers: updates lost", Goal::AtMost, 0, "",
                     value("8 tight writers", "utilia", "lost")});
    goals.push_back({"store", "read of an unchanged domain: over a stat", Goal::AtMost, 1, " µs",
                     value("cached read", "utilia", "over_stat_us")});
    const auto perRecord = [](const char* records) {
        return value("list of schedules in memory", records, "per_record_us");
    };
    goals.push_back({"store", "listing 1000 schedules: a record's time against that of 100",
                     Goal::AtMost, 1.25, " ×",
                     ratio(perRecord("1000 records"), perRecord("100 records"))});
    const auto choice = [](const char* records, const char* metric) {
        return value("choosing a resource in memory", records, metric);
    };
    goals.push_back(
        {"store", "choosing a resource: ten times the records", Goal::AtMost, 12, " ×",
         ratio(choice("1000 records", "changed_us"), choice("100 records", "changed_us"))});
    goals.push_back(
        {"store", "recording a version: ten times the records", Goal::AtMost, 12, " ×",
         ratio(choice("1000 records", "update_us"), choice("100 records", "update_us"))});
}

void addStartGoals(std::vector<Goal>& goals) {
    const auto start = [](const char* metric) { return value("start", "in turns", metric); };
    goals.push_back({"startup", "start with the framework: against an empty program", Goal::AtMost,
                     1.25, " ×", ratio(start("framework_ms"), start("empty_ms"))});
    goals.push_back({"startup", "shared objects", Goal::AtMost, 9, "", start("framework_objects")});
    goals.push_back({"startup", "more private memory than an empty program", Goal::AtMost, 64,
                     " KiB", difference(start("framework_kib"), start("empty_kib"))});
    goals.push_back({"startup", "what runs before main, with a white-list of 50 names",
                     Goal::AtMost, 200, " µs", value("before main", "in turns", "constructor_us")});
    goals.push_back({"startup", "logout of a permanent tool with two icons of 512 pixels",
                     Goal::AtMost, 100, " ms", value("logout", "in turns", "tool_ms")});
}

void addWebGoals(std::vector<Goal>& goals) {
    const auto loads = [](const char* metric) {
        return value("1000 small loads", "in turns", metric);
    };
    goals.push_back({"web", "1000 small loads from the loopback: against libcurl's own loop",
                     Goal::AtMost, 1.2, " ×", ratio(loads("utilia_ms"), loads("curl_ms"))});
}

void addEventGoals(std::vector<Goal>& goals) {
    struct Crowd {
        const char* name;
        double overAppend;
    };
    for (const Crowd& crowd : {Crowd{"1 process", 7}, Crowd{"32 processes", 5}}) {
        const auto of = [&crowd](const char* log, const char* metric) {
            return value(std::string(crowd.name) + ", in memory", log, metric);
        };
        const std::string subject =
            std::string("a record of 300 B, logs ended at 5 MiB, ") + crowd.name + ": ";
        goals.push_back({"events", subject + "against a bare append", Goal::AtMost,
                         crowd.overAppend, " ×", ratio(of("utilia", "us"), of("append", "us"))});
        goals.push_back({"events", subject + "against the same system calls by hand", Goal::AtMost,
                         1.3, " ×", ratio(of("utilia", "us"), of("by hand", "us"))});
        goals.push_back({"events", subject + "records a second", Goal::AtLeast, 300'000, "",
                         of("utilia", "per_s")});
        goals.push_back({"events", subject + "against journald", Goal::AtLeast, 3, " ×",
                         ratio(of("utilia", "per_s"), of("journald", "per_s"))});
        goals.push_back({"events", subject + "against SQLite", Goal::AtLeast, 2, " ×",
                         ratio(of("utilia", "per_s"), of("SQLite", "per_s"))});
    }
    goals.push_back({"events", "32 processes record as much as one together: against one",
                     Goal::AtLeast, 0.8, " ×",
                     ratio(value("32 processes, in memory", "utilia", "per_s"),
                           value("1 process, in memory", "utilia", "per_s"))});
    const auto format = [](const char* metric) {
        return value("formatting ten attributes", "utilia", metric);
    };
    goals.push_back({"events", "formatting a record with ten attributes: records a second",
                     Goal::AtLeast, 1'000'000, "", format("per_s")});
    goals.push_back({"events", "formatting a record with ten attributes: allocations", Goal::AtMost,
                     0, "", format("allocations")});
}

void addToolGoals(std::vector<Goal>& goals) {
    const auto crowd = [](const char* metric) { return value("50 tools", "at once", metric); };
    const std::string subject = "50 tools: ";
    goals.push_back({"tools", subject + "processor time of the agent while nothing changes",
                     Goal::AtMost, 0, " ticks", crowd("quiet_agent_ticks")});
    goals.push_back({"tools", subject + "wake-ups of the agent in that time", Goal::AtMost, 0, "",
                     crowd("quiet_agent_wakeups")});
    goals.push_back({"tools", subject + "wake-ups of all tools in that time", Goal::AtMost, 0, "",
                     crowd("quiet_tools_wakeups")});
    goals.push_back({"tools", subject + "updates of the menu while each changes every second",
                     Goal::AtMost, 10, " a second", crowd("busy_updates_per_second")});
    goals.push_back({"tools", subject + "the agent's share of a processor then", Goal::AtMost, 5,
                     " %", crowd("busy_agent_percent")});
    goals.push_back({"tools", subject + "from the agent's start until it shows all", Goal::AtMost,
                     1000, " ms", crowd("all_listed_ms")});
    goals.push_back(
        {"tools", subject + "memory of one", Goal::AtMost, 1024, " KiB", crowd("tool_kib")});
    goals.push_back({"tools", subject + "memory of all and the agent", Goal::AtMost, 80 * 1024,
                     " KiB", crowd("everything_kib")});
}

void addImageGoals(std::vector<Goal>& goals) {
    const auto pdf = [](const char* metric) { return value("pdf pages", "in turns", metric); };
    const auto peak = [](const char* way, const char* metric) {
        return value("pdf memory", way, metric);
    };
    const auto codec = [](const std::string& what) {
        return ratio(value("codecs", "in turns", what + "_ms"),
                     value("codecs", "in turns", what + "_bare_ms"));
    };
    for (const char* format : {"PNG", "JPEG"}) {
        const std::string name = format == std::string("PNG") ? "png" : "jpeg";
        goals.push_back({"images", std::string(format) + ": writing against the bare library",
                         Goal::AtMost, 1.1, " ×", codec(name + "_write")});
        goals.push_back({"images", std::string(format) + ": reading against the bare library",
                         Goal::AtMost, 1.1, " ×", codec(name + "_read")});
    }
    const std::string subject = "PDF of 1440 × 20,000 pixels: ";
    goals.push_back({"images", subject + "one thread against libdeflate over the RGB bytes",
                     Goal::AtMost, 1.3, " ×", ratio(pdf("utilia_1_ms"), pdf("limit_ms"))});
    goals.push_back({"images", subject + "two threads against it", Goal::AtMost, 0.75, " ×",
                     ratio(pdf("utilia_2_ms"), pdf("limit_ms"))});
    goals.push_back({"images", subject + "two threads, faster than cairo", Goal::AtLeast, 3, " ×",
                     ratio(pdf("cairo_ms"), pdf("utilia_2_ms"))});
    goals.push_back({"images", subject + "size against cairo's", Goal::AtMost, 0.68, " ×",
                     ratio(pdf("utilia_2_bytes"), pdf("cairo_bytes"))});
    goals.push_back({"images", subject + "memory besides the picture", Goal::AtMost, 40, " MiB",
                     peak("utilia", "peak_mib")});
    goals.push_back({"images", "the same of 100,000 rows", Goal::AtMost, 40, " MiB",
                     peak("utilia", "tall_peak_mib")});
    goals.push_back({"images", "the same as one page", Goal::AtMost, 40, " MiB",
                     peak("utilia one page", "tall_peak_mib")});
}

}  // namespace

std::string goalsTable(const Results& results, const std::string& part) {
    std::vector<Goal> goals;
    addMessageGoals(goals);
    addStoreGoals(goals);
    addStartGoals(goals);
    addWebGoals(goals);
    addImageGoals(goals);
    addEventGoals(goals);
    addToolGoals(goals);
    std::string text = "\n| goal | wanted | reached | |\n| --- | ---: | ---: | --- |\n";
    for (const Goal& goal : goals) {
        if (part != goal.part) continue;
        const auto reached = goal.figure(results);
        const bool met = reached && (goal.sense == Goal::AtMost ? *reached <= goal.wanted
                                                                : *reached >= goal.wanted);
        text += "| " + goal.text + " | " + (goal.sense == Goal::AtMost ? "≤ " : "≥ ") +
                shortNumber(goal.wanted) + goal.unit + " | " +
                (reached ? shortNumber(*reached) + goal.unit : std::string("not measured")) +
                " | " +
                (!reached ? ""
                 : met    ? "met"
                          : "**missed**") +
                " |\n";
    }
    return text;
}

}  // namespace utilia::bench
