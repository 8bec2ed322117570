#include "Common/UtiliaCommon/CEP/EventRecord.h"

#include <array>
#include <cmath>
#include <cstdint>

#include "Common/Foundation/Rounding.h"
#include "Common/Foundation/Utf8Decoder.h"
#include "Common/Platform/TimeZone.h"
#include "Common/UtiliaCommon/CEP/AttributeNames.h"

// A container is written in two passes: what is simple becomes attributes of the start tag, what
// is a container becomes a child. The first pass only counts containers, so that the tag's end is
// known when it comes.

namespace utilia {
namespace {

// Tabs and "<" for each depth that has an element.
constexpr std::array<std::string_view, kDeepestElement + 1> Prefixes = {
    "<", "\t<", "\t\t<", "\t\t\t<", "\t\t\t\t<", "\t\t\t\t\t<", "\t\t\t\t\t\t<", "\t\t\t\t\t\t\t<",
};

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD
constexpr char32_t kReplacementCharacter = 0xFFFD;

// Printable ASCII that is no markup.
constexpr auto kPlain = [] {
    std::array<bool, 256> plain{};
    for (std::size_t c = 0x20; c < 0x7F; ++c)
        plain[c] = c != '&' && c != '<' && c != '>' && c != '"';
    return plain;
}();

bool isPlain(char c) { return kPlain[static_cast<unsigned char>(c)]; }

// How long a surrogate is that somebody has spelt in UTF-8, which its rules forbid; else 0. It was
// one character to him, and is replaced by one.
std::size_t surrogateLength(std::string_view text) {
    const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    return text.size() >= 3 && byte(0) == 0xED && byte(1) >= 0xA0 && byte(1) <= 0xBF &&
                   byte(2) >= 0x80 && byte(2) <= 0xBF
               ? 3
               : 0;
}

// The next character that the document gets; steps over it.
char32_t nextCharacter(std::string_view& rest) {
    if (const std::size_t surrogate = surrogateLength(rest)) {
        rest.remove_prefix(surrogate);
        return kReplacementCharacter;
    }
    const DecodedCharacter next = decodeUtf8(rest);
    rest.remove_prefix(next.length);
    return next.wellFormed && isXmlCharacter(next.character) ? next.character
                                                             : kReplacementCharacter;
}

void appendReference(TextBuffer& out, char32_t character) {
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    std::array<char, 8> digits{};
    std::size_t begin = digits.size();
    do {
        digits[--begin] = kDigits[character & 15];
        character >>= 4;
    } while (character != 0);
    out.append("&#x");
    out.append(std::string_view(digits.data() + begin, digits.size() - begin));
    out.append(';');
}

struct Day {
    std::int64_t year;
    unsigned month;
    unsigned day;
};

// The Gregorian calendar, for all times. Years are counted from March, so that the day that leap
// years have more is a year's last, and in eras of 400 years, which all have as many days.
Day dayOf(std::int64_t daysSince2001) {
    constexpr std::int64_t kDaysTo2001 = 730'791;  // from the first of March of the year 0
    constexpr std::int64_t kDaysOfEra = 146'097;
    const std::int64_t days = daysSince2001 + kDaysTo2001;
    const std::int64_t era = (days >= 0 ? days : days - (kDaysOfEra - 1)) / kDaysOfEra;
    const auto dayOfEra = static_cast<unsigned>(days - era * kDaysOfEra);
    const unsigned yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36'524 - dayOfEra / 146'096) / 365;
    const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const unsigned monthFromMarch = (5 * dayOfYear + 2) / 153;
    const unsigned month = monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9;
    return {static_cast<std::int64_t>(yearOfEra) + era * 400 + (month <= 2 ? 1 : 0), month,
            dayOfYear - (153 * monthFromMarch + 2) / 5 + 1};
}

constexpr std::int64_t kSecondsOfDay = 86'400;

void appendDateAndTime(TextBuffer& out, std::int64_t seconds, unsigned milliseconds) {
    std::int64_t day = seconds / kSecondsOfDay;
    if (seconds % kSecondsOfDay < 0) --day;
    const auto time = static_cast<unsigned>(seconds - day * kSecondsOfDay);
    const Day date = dayOf(day);
    if (date.year >= 0 && date.year <= 9999) {
        out.appendPadded(static_cast<unsigned>(date.year), 4);
    } else {
        out.appendNumber(date.year);
    }
    out.append('-');
    out.appendPadded(date.month, 2);
    out.append('-');
    out.appendPadded(date.day, 2);
    out.append(' ');
    out.appendPadded(time / 3600, 2);
    out.append(':');
    out.appendPadded(time / 60 % 60, 2);
    out.append(':');
    out.appendPadded(time % 60, 2);
    out.append('.');
    out.appendPadded(milliseconds, 3);
}

void appendReal(TextBuffer& out, double value) {
    // The sign of a value that is no number differs from system to system.
    if (std::isnan(value)) return out.append("nan");
    out.appendNumber(value, std::chars_format::general, 6);
}

// Between the quotes. False for a date that cannot be written.
bool appendSimpleValue(TextBuffer& out, const Value& value) {
    switch (value.type()) {
    case Value::Type::String:
        appendEscaped(out, *value.string());
        return true;
    case Value::Type::Boolean:
        out.append(*value.boolean() ? std::string_view("true") : std::string_view("false"));
        return true;
    case Value::Type::Integer:
        out.appendNumber(value.integer() ? *value.integer()
                                         : static_cast<std::int64_t>(*value.largeInteger()));
        return true;
    case Value::Type::Real:
        appendReal(out, *value.real());
        return true;
    case Value::Type::Date:
        return appendLocalDate(out, *value.date());
    default:
        return false;
    }
}

void CEPLogAppendAttribute(TextBuffer& out, std::string_view name, const Value& value) {
    const std::size_t before = out.size();
    out.append(' ');
    out.append(name);
    out.append("=\"");
    if (!appendSimpleValue(out, value)) return out.cutTo(before);
    out.append('"');
}

bool isContainer(const Value& value) { return value.array() || value.dictionary(); }

std::string_view arrayItemName(std::array<char, 24>& name, std::size_t index) {
    name[0] = '_';
    const auto end = std::to_chars(name.data() + 1, name.data() + name.size(), index).ptr;
    return {name.data(), static_cast<std::size_t>(end - name.data())};
}

// The attribute pass. Answers how many containers there are.
std::size_t appendAttributes(TextBuffer& out, const Array& array) {
    std::size_t containers = 0;
    std::array<char, 24> name{};
    for (std::size_t i = 0; i < array.size(); ++i) {
        if (isContainer(array[i])) {
            ++containers;
        } else {
            CEPLogAppendAttribute(out, arrayItemName(name, i), array[i]);
        }
    }
    return containers;
}

std::size_t appendAttributes(TextBuffer& out, const Dictionary& dictionary, NamesTaken taken) {
    const std::size_t before = out.size();
    std::size_t containers = 0;
    for (const auto& [key, value] : dictionary) {
        if (isContainer(value)) {
            ++containers;
        } else if (isPlainName(key) && !isTaken(key, taken)) {
            CEPLogAppendAttribute(out, key, value);
        } else {
            // Not every key can be the name, so all names are looked at together.
            out.cutTo(before);
            AttributeNames names(dictionary, taken);
            containers = 0;
            for (const auto& [oddKey, anyValue] : dictionary) {
                if (isContainer(anyValue)) {
                    ++containers;
                } else {
                    CEPLogAppendAttribute(out, names.nameFor(oddKey), anyValue);
                }
            }
            return containers;
        }
    }
    return containers;
}

std::size_t appendAttributes(TextBuffer& out, const Value& container) {
    return container.array() ? appendAttributes(out, *container.array())
                             : appendAttributes(out, *container.dictionary(), NamesTaken::None);
}

// The child pass: `container` is an array or a dictionary.
void CEPLogAppendAttributesTags(TextBuffer& out, const Value& container, std::size_t depth);

void appendElement(TextBuffer& out, std::string_view name, const Value& container,
                   std::size_t depth) {
    out.append(Prefixes[depth]);
    out.append(name);
    const std::size_t containers = appendAttributes(out, container);
    if (containers == 0 || depth == kDeepestElement) return out.append("/>\n");
    out.append(">\n");
    CEPLogAppendAttributesTags(out, container, depth + 1);
    out.append(Prefixes[depth]);
    out.append('/');
    out.append(name);
    out.append(">\n");
}

void appendChildren(TextBuffer& out, const Dictionary& dictionary, std::size_t depth) {
    for (const auto& [key, value] : dictionary) {
        if (!isContainer(value)) continue;
        if (isPlainName(key)) {
            appendElement(out, key, value, depth);
        } else {
            appendElement(out, xmlName(key), value, depth);
        }
    }
}

void CEPLogAppendAttributesTags(TextBuffer& out, const Value& container, std::size_t depth) {
    if (const Dictionary* dictionary = container.dictionary())
        return appendChildren(out, *dictionary, depth);
    std::array<char, 24> name{};
    const Array& array = *container.array();
    for (std::size_t i = 0; i < array.size(); ++i) {
        if (isContainer(array[i])) appendElement(out, arrayItemName(name, i), array[i], depth);
    }
}

// "options" and "details".
void appendPart(TextBuffer& out, std::string_view name, const Dictionary* part) {
    if (IsEmptyContainer(part)) return;
    out.append(Prefixes[1]);
    out.append(name);
    if (appendAttributes(out, *part, NamesTaken::None) == 0) return out.append("/>\n");
    out.append(">\n");
    appendChildren(out, *part, 2);
    out.append(Prefixes[1]);
    out.append('/');
    out.append(name);
    out.append(">\n");
}

}  // namespace

bool IsEmptyContainer(const Dictionary* container) { return !container || container->empty(); }

void appendAsGiven(TextBuffer& out, std::string_view text) {
    while (!text.empty()) {
        std::size_t length = 0;
        while (length < text.size() && text[length] >= 0x20 && text[length] < 0x7F) ++length;
        out.append(text.substr(0, length));
        text.remove_prefix(length);
        if (text.empty()) return;
        const std::string_view before = text;
        const char32_t character = nextCharacter(text);
        const std::string_view spelling = before.substr(0, before.size() - text.size());
        out.append(character == kReplacementCharacter ? kReplacement : spelling);
    }
}

void appendEscaped(TextBuffer& out, std::string_view text) {
    while (!text.empty()) {
        std::size_t length = 0;
        while (length < text.size() && isPlain(text[length])) ++length;
        out.append(text.substr(0, length));
        text.remove_prefix(length);
        if (text.empty()) return;
        switch (const char32_t character = nextCharacter(text)) {
        case '&':
            out.append("&amp;");
            break;
        case '<':
            out.append("&lt;");
            break;
        case '>':
            out.append("&gt;");
            break;
        case '"':
            out.append("&quot;");
            break;
        default:
            appendReference(out, character);
        }
    }
}

void appendTimestamp(TextBuffer& out, Date date) {
    const double time = date.secondsSinceReferenceDate;
    const double seconds = roundedDown(time);
    // A clock that tells no time at all.
    constexpr double kRange = 1e15;
    if (!(seconds > -kRange && seconds < kRange)) return appendTimestamp(out, Date{});
    appendDateAndTime(out, static_cast<std::int64_t>(seconds),
                      static_cast<unsigned>((time - seconds) * 1000));
}

bool appendLocalDate(TextBuffer& out, Date date) {
    constexpr std::int64_t kFirst = -63'113'904'000;  // the year 1
    constexpr std::int64_t kEnd = 252'423'993'600;    // the year 10000
    const double time = date.secondsSinceReferenceDate;
    if (!(time > static_cast<double>(kFirst) - kSecondsOfDay &&
          time < static_cast<double>(kEnd) + kSecondsOfDay))
        return false;
    const auto milliseconds = static_cast<std::int64_t>(roundedDown(time * 1000 + 0.5));
    std::int64_t seconds = milliseconds / 1000;
    if (milliseconds % 1000 < 0) --seconds;
    const std::int32_t ahead =
        platform::TimeZone::secondsFromGMT(Date{static_cast<double>(seconds)});
    if (seconds + ahead < kFirst || seconds + ahead >= kEnd) return false;
    appendDateAndTime(out, seconds + ahead, static_cast<unsigned>(milliseconds - seconds * 1000));
    const auto minutes = static_cast<unsigned>((ahead < 0 ? -ahead : ahead) / 60);
    out.append(ahead < 0 ? std::string_view(" -") : std::string_view(" +"));
    out.appendPadded(minutes / 60, 2);
    out.appendPadded(minutes % 60, 2);
    return true;
}

void appendEventRecord(TextBuffer& out, Date now, const EventSource& source,
                       std::string_view action, const Dictionary* attributes,
                       const Dictionary* options, const Dictionary* details) {
    out.append(kEventStart);
    appendTimestamp(out, now);
    if (source.CEPLogBundleId) {
        out.append("\" tool=\"");
        appendAsGiven(out, *source.CEPLogBundleId);
    }
    out.append("\" toollocation=\"");
    appendAsGiven(out, source.CEPLogAppPath);
    out.append("\" toolversion=\"");
    appendAsGiven(out, source.CEPLogAppVersion);
    out.append("\" action=\"");
    appendAsGiven(out, action);
    out.append('"');
    const std::size_t containers =
        attributes ? appendAttributes(out, *attributes, NamesTaken::OfEvent) : 0;
    if (containers == 0 && IsEmptyContainer(options) && IsEmptyContainer(details))
        return out.append("/>\n");
    out.append(">\n");
    if (containers != 0) appendChildren(out, *attributes, 1);
    appendPart(out, "options", options);
    appendPart(out, "details", details);
    out.append("</event>\n");
}

}  // namespace utilia
