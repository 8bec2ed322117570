#include "Common/Platform/Linux/XmlPropertyListReader.h"

#include <array>
#include <charconv>
#include <chrono>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "Common/Platform/Linux/PropertyListRules.h"
#include "Common/Platform/PropertyListSerialization.h"

namespace utilia::platform {
namespace {

constexpr std::string_view kBlanks = " \t\r\n";

std::string_view trimmed(std::string_view text) {
    const std::size_t begin = text.find_first_not_of(kBlanks);
    if (begin == std::string_view::npos) return {};
    return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

std::optional<Value> integerFrom(std::string_view text) {
    text = trimmed(text);
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) text.remove_prefix(1);
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (hexadecimal) text.remove_prefix(2);
    std::uint64_t magnitude = 0;
    const auto end =
        std::from_chars(text.data(), text.data() + text.size(), magnitude, hexadecimal ? 16 : 10);
    if (text.empty() || end.ec != std::errc() || end.ptr != text.data() + text.size())
        return std::nullopt;
    if (!negative) return Value(magnitude);
    constexpr std::uint64_t kLowest = std::uint64_t{1} << 63;
    if (magnitude > kLowest) return std::nullopt;
    return Value(static_cast<std::int64_t>(~magnitude + 1));
}

// Never by the process's locale, whose decimal point may be a comma.
std::optional<Value> realFrom(std::string_view text) {
    text = trimmed(text);
    if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
    double number = 0;
    const auto end = std::from_chars(text.data(), text.data() + text.size(), number);
    if (text.empty() || end.ec != std::errc() || end.ptr != text.data() + text.size())
        return std::nullopt;
    return Value(number);
}

// YYYY-MM-DDThh:mm:ssZ
std::optional<Value> dateFrom(std::string_view text) {
    using namespace std::chrono;
    constexpr std::string_view kShape = "0000-00-00T00:00:00Z";
    text = trimmed(text);
    if (text.size() != kShape.size()) return std::nullopt;
    for (std::size_t i = 0; i < kShape.size(); ++i) {
        const bool isDigit = text[i] >= '0' && text[i] <= '9';
        if (kShape[i] == '0' ? !isDigit : text[i] != kShape[i]) return std::nullopt;
    }
    const auto field = [&](std::size_t begin, std::size_t size) {
        int number = 0;
        for (const char c : text.substr(begin, size)) number = number * 10 + (c - '0');
        return number;
    };
    const year_month_day day{year(field(0, 4)), month(static_cast<unsigned>(field(5, 2))),
                             std::chrono::day(static_cast<unsigned>(field(8, 2)))};
    if (!day.ok() || field(11, 2) > 23 || field(14, 2) > 59 || field(17, 2) > 60)
        return std::nullopt;
    const auto moment =
        sys_days(day) + hours(field(11, 2)) + minutes(field(14, 2)) + seconds(field(17, 2));
    return Value(Date::fromUnixTime(static_cast<double>(moment.time_since_epoch() / seconds(1))));
}

constexpr std::array<std::int8_t, 256> base64Digits() {
    std::array<std::int8_t, 256> digits{};
    digits.fill(-1);
    constexpr std::string_view kAlphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
        digits[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::int8_t>(i);
    }
    return digits;
}

std::optional<Data> dataFrom(std::string_view text) {
    static constexpr auto kDigits = base64Digits();
    Data result;
    result.reserve(text.size() / 4 * 3);
    std::uint32_t group = 0;
    std::size_t digits = 0;
    std::size_t padding = 0;
    for (const char c : text) {
        if (kBlanks.find(c) != std::string_view::npos) continue;
        const int digit = kDigits[static_cast<unsigned char>(c)];
        if (c == '=' ? ++padding > 2 || digits % 4 < 2 : digit < 0 || padding > 0)
            return std::nullopt;
        group = group << 6 | static_cast<std::uint32_t>(c == '=' ? 0 : digit);
        if (++digits % 4 != 0) continue;
        for (const int shift : {16, 8, 0})
            result.push_back(static_cast<std::uint8_t>(group >> shift));
    }
    if (digits % 4 != 0) return std::nullopt;
    result.resize(result.size() - padding);
    return result;
}

void appendUtf8(std::string& text, std::uint32_t point) {
    if (point < 0x80) {
        text += static_cast<char>(point);
        return;
    }
    const int more = point < 0x800 ? 1 : point < 0x10000 ? 2 : 3;
    constexpr int kLeads[] = {0, 0xC0, 0xE0, 0xF0};
    text += static_cast<char>(kLeads[more] | static_cast<int>(point >> 6 * more));
    for (int i = more - 1; i >= 0; --i) text += static_cast<char>(0x80 | (point >> 6 * i & 0x3F));
}

// What stands between "&" and ";".
bool appendReference(std::string& text, std::string_view name) {
    constexpr std::pair<std::string_view, char> kNamed[] = {
        {"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}};
    for (const auto& [known, character] : kNamed) {
        if (name == known) return text += character, true;
    }
    if (!name.starts_with('#')) return false;
    name.remove_prefix(1);
    const bool hexadecimal = name.starts_with('x');
    if (hexadecimal) name.remove_prefix(1);
    std::uint32_t point = 0;
    const auto end =
        std::from_chars(name.data(), name.data() + name.size(), point, hexadecimal ? 16 : 10);
    const bool isCharacter = point != 0 && point <= 0x10FFFF && (point < 0xD800 || point > 0xDFFF);
    if (name.empty() || end.ec != std::errc() || end.ptr != name.data() + name.size() ||
        !isCharacter)
        return false;
    appendUtf8(text, point);
    return true;
}

struct Tag {
    enum class Kind { Open, Close, Empty };
    Kind kind = Kind::Open;
    std::string_view name;
};

class Reader final {
public:
    explicit Reader(std::string_view text) : text_(text) {}

    Result<Value> read() {
        std::optional<Value> top;
        if (prolog() && skipMisc()) {
            top = value(0);
            if (top && !(skipMisc() && close("plist") && skipMisc() && atEnd())) top.reset();
        }
        if (top) return *std::move(top);
        std::size_t line = 1;
        for (const char c : text_.substr(0, at_)) line += c == '\n';
        return Error::cocoa(CocoaErrorCode::PropertyListReadCorrupt,
                            "XML property list: line " + std::to_string(line) + ": " + wrong_);
    }

private:
    bool prolog() {
        if (rest().starts_with("\xEF\xBB\xBF")) at_ += 3;
        if (!isPropertyListText(text_)) return fail("text that is not UTF-8 or holds NUL");
        if (rest().starts_with("<?xml")) {
            const std::string_view declaration = rest().substr(0, rest().find("?>"));
            if (declaration.find("encoding") != std::string_view::npos &&
                declaration.find("UTF-8") == std::string_view::npos &&
                declaration.find("utf-8") == std::string_view::npos) {
                return fail("an encoding other than UTF-8");
            }
        }
        if (!skipMisc()) return false;
        if (rest().starts_with("<!DOCTYPE")) {
            const std::size_t end = rest().find_first_of("[>");
            if (end == std::string_view::npos || rest()[end] == '[')
                return fail("a document type with declarations");
            at_ += end + 1;
            if (!skipMisc()) return false;
        }
        if (!rest().starts_with("<plist")) return fail("no plist element");
        const std::size_t end = rest().find('>');
        const char behind = rest().substr(6, 1).empty() ? '\0' : rest()[6];
        if (end == std::string_view::npos || rest()[end - 1] == '/' ||
            (behind != '>' && kBlanks.find(behind) == std::string_view::npos)) {
            return fail("no plist element");
        }
        at_ += end + 1;
        return true;
    }

    // Blanks, comments and processing instructions.
    bool skipMisc() {
        for (;;) {
            at_ = std::min(text_.find_first_not_of(kBlanks, at_), text_.size());
            const bool isComment = rest().starts_with("<!--");
            if (!isComment && !rest().starts_with("<?")) return true;
            if (!skipPast(isComment ? "-->" : "?>")) return false;
        }
    }

    bool skipPast(std::string_view end) {
        const std::size_t found = text_.find(end, at_ + 2);
        if (found == std::string_view::npos) return fail("cut short");
        at_ = found + end.size();
        return true;
    }

    std::optional<Value> value(std::size_t depth) {
        const auto tag = nextTag();
        if (!tag || !spend(kPropertyListNodeCost)) return std::nullopt;
        if (tag->kind == Tag::Kind::Close)
            return refuse("an element ends where a value is expected");
        const bool isEmpty = tag->kind == Tag::Kind::Empty;
        if (tag->name == "array" || tag->name == "dict") {
            if (depth == kPropertyListMaximumDepth) return refuse("nested too deep");
            if (tag->name == "array") return isEmpty ? Value(Array()) : array(depth);
            return isEmpty ? Value(Dictionary()) : dictionary(depth);
        }
        if (tag->name == "true" || tag->name == "false") {
            if (!isEmpty && !close(tag->name)) return std::nullopt;
            return Value(tag->name == "true");
        }
        auto content = isEmpty ? std::string() : textUntilClose(tag->name);
        if (!content) return std::nullopt;
        if (tag->name == "string") return Value(*std::move(content));
        std::optional<Value> result;
        if (tag->name == "integer") result = integerFrom(*content);
        if (tag->name == "real") result = realFrom(*content);
        if (tag->name == "date") result = dateFrom(*content);
        if (tag->name == "data") {
            if (auto bytes = dataFrom(*content)) result = Value(*std::move(bytes));
        }
        if (!result) return refuse("an element that is unknown, or cannot hold this");
        return result;
    }

    std::optional<Value> array(std::size_t depth) {
        Array elements;
        for (;;) {
            if (!skipMisc()) return std::nullopt;
            if (rest().starts_with("</")) break;
            auto element = value(depth + 1);
            if (!element) return std::nullopt;
            elements.append(*std::move(element));
        }
        if (!close("array")) return std::nullopt;
        return Value(std::move(elements));
    }

    std::optional<Value> dictionary(std::size_t depth) {
        Dictionary entries;
        for (;;) {
            if (!skipMisc()) return std::nullopt;
            if (rest().starts_with("</")) break;
            const auto tag = nextTag();
            if (!tag || !spend(kPropertyListNodeCost)) return std::nullopt;
            if (tag->name != "key" || tag->kind == Tag::Kind::Close)
                return refuse("a dictionary entry without key");
            const auto key = tag->kind == Tag::Kind::Empty ? std::string() : textUntilClose("key");
            if (!key || !skipMisc()) return std::nullopt;
            auto element = value(depth + 1);
            if (!element) return std::nullopt;
            entries.set(*key, *std::move(element));
        }
        if (!close("dict")) return std::nullopt;
        return Value(std::move(entries));
    }

    std::optional<Tag> nextTag() {
        if (!rest().starts_with('<'))
            return refuse(rest().empty() ? "cut short" : "text where an element is expected");
        const std::size_t end = rest().find('>');
        if (end == std::string_view::npos) return refuse("cut short");
        std::string_view inside = rest().substr(1, end - 1);
        Tag tag;
        if (inside.starts_with('/')) {
            tag.kind = Tag::Kind::Close;
            inside.remove_prefix(1);
        } else if (inside.ends_with('/')) {
            tag.kind = Tag::Kind::Empty;
            inside.remove_suffix(1);
        }
        while (!inside.empty() && kBlanks.find(inside.back()) != std::string_view::npos)
            inside.remove_suffix(1);
        tag.name = inside;
        at_ += end + 1;
        return tag;
    }

    bool close(std::string_view name) {
        const auto tag = nextTag();
        if (!tag) return false;
        return (tag->kind == Tag::Kind::Close && tag->name == name) ||
               fail("an element is not closed");
    }

    // The text of an element without child elements, references replaced; ends behind the closing
    // tag.
    std::optional<std::string> textUntilClose(std::string_view name) {
        std::string content;
        for (;;) {
            const std::size_t next = std::min(text_.find_first_of("<&", at_), text_.size());
            content.append(text_, at_, next - at_);
            at_ = next;
            if (rest().starts_with('&')) {
                const std::size_t end = rest().substr(0, 16).find(';');
                if (end == std::string_view::npos ||
                    !appendReference(content, rest().substr(1, end - 1))) {
                    return refuse("an unknown reference");
                }
                at_ += end + 1;
            } else if (rest().starts_with("<![CDATA[")) {
                const std::size_t begin = at_ + 9;
                const std::size_t end = text_.find("]]>", begin);
                if (end == std::string_view::npos) return refuse("cut short");
                content.append(text_, begin, end - begin);
                at_ = end + 3;
            } else if (rest().starts_with("<!--")) {
                if (!skipPast("-->")) return std::nullopt;
            } else {
                if (!close(name) || !spend(content.size())) return std::nullopt;
                return content;
            }
        }
    }

    bool atEnd() { return at_ == text_.size() || fail("more behind the end"); }
    std::string_view rest() const { return text_.substr(at_); }

    bool spend(std::size_t cost) {
        if (cost > left_) return fail("more than a property list may hold");
        left_ -= cost;
        return true;
    }

    std::nullopt_t refuse(const char* why) {
        fail(why);
        return std::nullopt;
    }

    bool fail(const char* why) {
        wrong_ = why;
        return false;
    }

    const std::string_view text_;
    std::size_t at_ = 0;
    std::size_t left_ = kPropertyListMaximumCost;
    const char* wrong_ = "";
};

}  // namespace

Result<Value> readXmlPropertyList(std::span<const std::uint8_t> bytes) {
    return Reader({reinterpret_cast<const char*>(bytes.data()), bytes.size()}).read();
}

}  // namespace utilia::platform
