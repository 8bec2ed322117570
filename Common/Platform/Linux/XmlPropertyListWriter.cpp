#include "Common/Platform/Linux/XmlPropertyListWriter.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace utilia::platform {
namespace {

constexpr std::string_view kHead = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                                   "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
                                   "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
                                   "<plist version=\"1.0\">\n";
constexpr std::string_view kTail = "</plist>\n";
constexpr std::size_t kDataLineWidth = 76;
constexpr std::size_t kTabWidth = 8;

// UTF-16 order, which is the original's: characters outside the first plane come before U+E000 to
// U+FFFF.
bool precedes(std::string_view left, std::string_view right) {
    const auto weight = [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte == 0xEE || byte == 0xEF ? byte + 0x10 : static_cast<int>(byte);
    };
    return std::lexicographical_compare(left.begin(), left.end(), right.begin(), right.end(),
                                        [&](char a, char b) { return weight(a) < weight(b); });
}

class Writer final {
public:
    Result<Data> write(const Value& top) {
        out_ = kHead;
        node(top, 0);
        out_ += kTail;
        if (wrong_) {
            return Error::cocoa(CocoaErrorCode::PropertyListWriteInvalid,
                                std::string("XML property list: ") + wrong_);
        }
        return Data(out_.begin(), out_.end());
    }

private:
    void node(const Value& value, std::size_t depth) {
        switch (value.type()) {
        case Value::Type::Boolean:
            return line(depth, *value.boolean() ? "<true/>" : "<false/>");
        case Value::Type::Integer:
            if (const auto* large = value.largeInteger())
                return element(depth, "integer", std::to_string(*large));
            return element(depth, "integer", std::to_string(*value.integer()));
        case Value::Type::Real:
            return element(depth, "real", realText(*value.real()));
        case Value::Type::Date:
            return element(depth, "date", dateText(*value.date()));
        case Value::Type::String:
            return element(depth, "string", escaped(*value.string()));
        case Value::Type::Bytes:
            return data(*value.data(), depth);
        case Value::Type::Array:
            return array(*value.array(), depth);
        case Value::Type::Dictionary:
            return dictionary(*value.dictionary(), depth);
        case Value::Type::Null:
            wrong_ = "null";
        }
    }

    void array(const Array& elements, std::size_t depth) {
        if (elements.empty()) return line(depth, "<array/>");
        line(depth, "<array>");
        for (const Value& element : elements) node(element, depth + 1);
        line(depth, "</array>");
    }

    void dictionary(const Dictionary& entries, std::size_t depth) {
        if (entries.empty()) return line(depth, "<dict/>");
        std::vector<const Dictionary::Entry*> sorted;
        sorted.reserve(entries.size());
        for (const auto& entry : entries) sorted.push_back(&entry);
        std::sort(sorted.begin(), sorted.end(), [](const auto* left, const auto* right) {
            return precedes(left->first, right->first);
        });
        line(depth, "<dict>");
        for (const auto* entry : sorted) {
            element(depth + 1, "key", escaped(entry->first));
            node(entry->second, depth + 1);
        }
        line(depth, "</dict>");
    }

    void data(const Data& bytes, std::size_t depth) {
        line(depth, "<data>");
        const std::size_t indent = std::min(depth * kTabWidth, kDataLineWidth - 4);
        const std::size_t bytesPerLine = (kDataLineWidth - indent) / 4 * 3;
        for (std::size_t begin = 0; begin < bytes.size(); begin += bytesPerLine) {
            line(depth, base64(bytes, begin, std::min(bytes.size(), begin + bytesPerLine)));
        }
        line(depth, "</data>");
    }

    static std::string base64(const Data& bytes, std::size_t begin, std::size_t end) {
        constexpr std::string_view kDigits =
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        std::string text;
        for (std::size_t i = begin; i < end; i += 3) {
            const std::size_t count = std::min<std::size_t>(3, end - i);
            std::uint32_t group = static_cast<std::uint32_t>(bytes[i]) << 16;
            if (count > 1) group |= static_cast<std::uint32_t>(bytes[i + 1]) << 8;
            if (count > 2) group |= bytes[i + 2];
            for (std::size_t digit = 0; digit < 4; ++digit) {
                text += digit <= count ? kDigits[group >> (18 - 6 * digit) & 63] : '=';
            }
        }
        return text;
    }

    // As printf's %.17g in the C locale, whatever locale the process has.
    static std::string realText(double value) {
        if (value == 0) return "0.0";
        if (std::isnan(value)) return "nan";
        if (std::isinf(value)) return value > 0 ? "+infinity" : "-infinity";
        char text[40];
        const auto end =
            std::to_chars(text, text + sizeof text, value, std::chars_format::general, 17);
        return {text, end.ptr};
    }

    std::string dateText(Date date) {
        using namespace std::chrono;
        constexpr double kFarAway = 1e12;  // seconds; the years are checked when they are known
        const double offset = date.secondsSinceReferenceDate;
        if (!(std::abs(offset) < kFarAway)) return refuse("a date outside the years 1 to 9999");
        // The fraction is dropped before the sum, on both sides of the reference date alike.
        const sys_seconds moment{seconds{static_cast<std::int64_t>(offset)} +
                                 seconds{static_cast<std::int64_t>(Date::kReferenceUnixTime)}};
        const auto day = floor<days>(moment);
        const year_month_day calendar(day);
        const hh_mm_ss time(moment - day);
        const int year = static_cast<int>(calendar.year());
        if (year < 1 || year > 9999) return refuse("a date outside the years 1 to 9999");
        char text[40];
        std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ", year,
                      static_cast<unsigned>(calendar.month()),
                      static_cast<unsigned>(calendar.day()), static_cast<int>(time.hours().count()),
                      static_cast<int>(time.minutes().count()),
                      static_cast<int>(time.seconds().count()));
        return text;
    }

    std::string escaped(std::string_view text) {
        std::string result;
        result.reserve(text.size());
        for (std::size_t i = 0; i < text.size(); ++i) {
            const auto c = static_cast<unsigned char>(text[i]);
            if (c < 0x20 && c != '\t' && c != '\n' && c != '\r')
                return refuse("a control character");
            // U+FFFE and U+FFFF are no characters of XML.
            if (c == 0xEF && text.substr(i + 1, 1) == "\xBF" && text.substr(i + 2, 1) >= "\xBE") {
                return refuse("U+FFFE or U+FFFF");
            }
            if (c == '&') {
                result += "&amp;";
            } else if (c == '<') {
                result += "&lt;";
            } else if (c == '>') {
                result += "&gt;";
            } else {
                result += static_cast<char>(c);
            }
        }
        return result;
    }

    void element(std::size_t depth, std::string_view name, std::string_view content) {
        out_.append(depth, '\t').append("<").append(name).append(">").append(content);
        out_.append("</").append(name).append(">\n");
    }

    void line(std::size_t depth, std::string_view text) {
        out_.append(depth, '\t').append(text).append("\n");
    }

    std::string refuse(const char* why) {
        wrong_ = why;
        return {};
    }

    std::string out_;
    const char* wrong_ = nullptr;
};

}  // namespace

Result<Data> writeXmlPropertyList(const Value& value) { return Writer().write(value); }

}  // namespace utilia::platform
