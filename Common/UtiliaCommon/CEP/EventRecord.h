#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Common/Foundation/Value.h"
#include "Common/UtiliaCommon/CEP/TextBuffer.h"

// The text of one record, as Documentation/Formats/EventLog.md describes it. Whatever the
// dictionaries hold, the record is well-formed XML, if the texts that are written as they are have
// no markup in them.
//
// Threads: any; a buffer belongs to one thread.

namespace utilia {

// Which application an event is of.
struct EventSource {
    std::optional<std::string> CEPLogBundleId;
    std::string CEPLogAppPath;
    std::string CEPLogAppVersion;
};

// What every record begins with, and nothing that is escaped contains.
inline constexpr std::string_view kEventStart = "<event timestamp=\"";

// Elements deeper than this one, of which the record itself is 0, are left out.
inline constexpr std::size_t kDeepestElement = 7;

// The characters that an XML 1.0 document may contain.
constexpr bool isXmlCharacter(char32_t c) {
    return (c >= 0x20 && c < 0xD800) || (c > 0xDFFF && c < 0xFFFE) || c == '\t' || c == '\n' ||
           c == '\r' || (c > 0xFFFF && c <= 0x10FFFF);
}

// The whole record, with its line feed.
void appendEventRecord(TextBuffer& out, Date now, const EventSource& source,
                       std::string_view action, const Dictionary* attributes,
                       const Dictionary* options, const Dictionary* details);

// True for null and for a dictionary without entries.
bool IsEmptyContainer(const Dictionary* container);

// A text as it is, but for what no XML document may contain at all: ill-formed UTF-8 and most
// control characters become U+FFFD. Markup stays markup.
void appendAsGiven(TextBuffer& out, std::string_view text);

// A value between quotes: markup and everything but printable ASCII as references.
void appendEscaped(TextBuffer& out, std::string_view text);

// "2021-03-05 05:06:07.123", UTC; milliseconds are cut off.
void appendTimestamp(TextBuffer& out, Date date);

// "2021-03-05 06:06:07.124 +0100" in the user's time zone; rounded to milliseconds. The year is
// between 1 and 9999, else false and nothing.
bool appendLocalDate(TextBuffer& out, Date date);

}  // namespace utilia
