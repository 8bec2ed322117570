#include "Applications/utiliactl/EventRecords.h"

#include <memory>
#include <string>

#include <glib.h>

#include "Common/UtiliaCommon/CEP/EventLogReader.h"

namespace utilia::control {
namespace {

// The elements that are open; the last one is the innermost.
struct Reading {
    std::vector<std::pair<std::string, Json>> open;
    Json record;
};

// Two keys of a dictionary can have led to one element name.
std::string freeName(const Json& object, const std::string& name) {
    std::string candidate = name;
    for (int i = 2; object.contains(candidate); ++i) candidate = name + "_" + std::to_string(i);
    return candidate;
}

void startElement(GMarkupParseContext*, const gchar* element, const gchar** names,
                  const gchar** values, gpointer data, GError**) {
    Json object = Json::object();
    for (std::size_t i = 0; names[i]; ++i) object[names[i]] = values[i];
    static_cast<Reading*>(data)->open.emplace_back(element, std::move(object));
}

void endElement(GMarkupParseContext*, const gchar*, gpointer data, GError**) {
    auto& reading = *static_cast<Reading*>(data);
    auto [name, object] = std::move(reading.open.back());
    reading.open.pop_back();
    if (reading.open.empty()) {
        reading.record = std::move(object);
    } else {
        Json& parent = reading.open.back().second;
        parent[freeName(parent, name)] = std::move(object);
    }
}

Json recordFrom(std::string_view text) {
    Reading reading;
    const GMarkupParser parser{startElement, endElement, nullptr, nullptr, nullptr};
    const std::unique_ptr<GMarkupParseContext, void (*)(GMarkupParseContext*)> context(
        g_markup_parse_context_new(&parser, static_cast<GMarkupParseFlags>(0), &reading, nullptr),
        g_markup_parse_context_free);
    const bool isRead = g_markup_parse_context_parse(context.get(), text.data(),
                                                     static_cast<gssize>(text.size()), nullptr) &&
                        g_markup_parse_context_end_parse(context.get(), nullptr);
    if (isRead) return std::move(reading.record);
    Json record = Json::object();
    record["record"] = std::string(text);
    return record;
}

}  // namespace

std::vector<Json> eventRecords(std::string_view document) {
    std::vector<Json> records;
    EventLogReader reader([&](LogPart part, std::uint64_t, std::string_view bytes) {
        if (part == LogPart::Record) records.push_back(recordFrom(bytes));
    });
    reader.read(document);
    reader.finish();
    return records;
}

}  // namespace utilia::control
