#pragma once

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include "Common/UtiliaCommon/CEP/EventLogFile.h"
#include "Common/UtiliaCommon/CEP/EventRecord.h"

namespace utilia::test {

inline EventLogFacts sampleFacts() {
    return {.hardwareUUID = "0E6B9F1C-0000-4000-8000-000000000001",
            .osInfo = "6.1.0",
            .computerModel = "Sample 1",
            .locale = "de_DE",
            .clientVersion = "1.2-34",
            .safariVersion = "",
            .isSystemDoNotDisturb = false,
            .notificationLines = "",
            .hasBattery = true,
            .appearance = "dark",
            .settingsLines = "\t<Shortcuts count=\"0\" active_count=\"0\">no</Shortcuts>\n"};
}

inline std::string sampleHeader() {
    const EventLogFacts facts = sampleFacts();
    std::string header;
    for (const std::string_view piece : eventLogHeader(facts)) header += piece;
    return header;
}

// A record that a number and a name tell from all others, of about `size` bytes.
inline std::string sampleRecord(const std::string& writer, int number, std::size_t size = 0) {
    const EventSource source{"com.korvane.utilia.Sample", "/Sample.app", "1.0-1"};
    Dictionary details{{"writer", writer}, {"number", number}, {"text", "a & \u00FC"}};
    if (size > 280) details.set("filling", std::string(size - 280, 'x'));
    if (number % 3 == 0) details.set("list", Array{"a", Dictionary{{"event", "inner"}}});
    TextBuffer out;
    appendEventRecord(out, Date{636613567.1235}, source, "Sample", nullptr, nullptr, &details);
    return std::string(out.text());
}

inline std::string document(const std::string& records) {
    return sampleHeader() + records + std::string(kEventLogFooter);
}

inline std::string contentOf(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void writeTo(const std::filesystem::path& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

}  // namespace utilia::test
