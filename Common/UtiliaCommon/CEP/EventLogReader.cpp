#include "Common/UtiliaCommon/CEP/EventLogReader.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <vector>

#include "Common/Foundation/Utf8Decoder.h"
#include "Common/UtiliaCommon/CEP/AttributeNames.h"
#include "Common/UtiliaCommon/CEP/EventLogHeader.h"
#include "Common/UtiliaCommon/CEP/EventRecord.h"

// A record is parsed as strictly as it was made: where its grammar is broken, it was cut there, and
// another one may begin. What begins one is its first words with a time stamp in them; no value can
// contain them, since "<" is escaped there. So a piece ends before the next such words.
//
// The action, the tool's path and its version are not escaped. A record that cannot be parsed is
// kept if everything but these can be: the writer decided what stands in them, not a crash.

namespace utilia {
namespace {

constexpr std::size_t kLongestHeader = std::size_t{1} << 20;
// A record longer than this is tried again when twice as much of it is there.
constexpr std::size_t kLongRecord = std::size_t{1} << 20;
constexpr std::string_view kTimestampForm = "0000-00-00 00:00:00.000\" tool";
constexpr std::string_view kNameOfRecord = "event";
constexpr std::array<std::string_view, 3> kTextsAsGiven = {"\" toollocation=\"",
                                                           "\" toolversion=\"", "\" action=\""};
constexpr std::size_t kMostQuotes = 100;

constexpr std::size_t kTimestampLength = std::string_view("0000-00-00 00:00:00.000").size();

enum class Parse { Whole, Broken, CutShort };

// What every record begins with. CutShort when the text ends before that can be told.
Parse recordStart(std::string_view text) {
    const auto agrees = [text](std::size_t i) {
        if (i < kEventStart.size()) return text[i] == kEventStart[i];
        const char form = kTimestampForm[i - kEventStart.size()];
        return form == '0' ? text[i] >= '0' && text[i] <= '9' : text[i] == form;
    };
    constexpr std::size_t kLength = kEventStart.size() + kTimestampForm.size();
    for (std::size_t i = 0; i < kLength; ++i) {
        if (i == text.size()) return Parse::CutShort;
        if (!agrees(i)) return Parse::Broken;
    }
    return Parse::Whole;
}

bool isName(std::string_view text) { return isPlainName(text) || xmlName(text) == text; }

// Parses one record from the beginning of a text.
class RecordParser final {
public:
    explicit RecordParser(std::string_view text) : text_(text) {}

    Parse parse() {
        if (const Parse start = recordStart(text_); start != Parse::Whole) return start;
        const Parse tag = startTag();
        return tag == Parse::Whole && !hasOwnAttributes() ? Parse::Broken : lines(tag);
    }

    // Goes by nothing but what follows the action, which ends at `end`.
    Parse parseAfter(std::size_t end) {
        position_ = end + 1;
        return lines(restOfTag(kNameOfRecord));
    }

    std::size_t length() const { return position_; }

private:
    bool isAtEnd() const { return position_ == text_.size(); }

    // Those that every record begins with; an inner element called "event" does not.
    bool hasOwnAttributes() const {
        const std::size_t next = first_[1] == "tool" ? 2 : 1;
        return first_[next] == "toollocation" && first_[next + 1] == "toolversion" &&
               first_[next + 2] == "action";
    }

    // Whether each "&" begins a reference to a character that a document may contain.
    static bool hasGoodReferences(std::string_view value) {
        for (std::size_t at = value.find('&'); at != std::string_view::npos;
             at = value.find('&', at + 1)) {
            const std::size_t end = value.find(';', at);
            if (end == std::string_view::npos) return false;
            std::string_view name = value.substr(at + 1, end - at - 1);
            if (name == "amp" || name == "lt" || name == "gt" || name == "quot") continue;
            if (!name.starts_with("#x")) return false;
            name.remove_prefix(2);
            std::uint32_t character = 0;
            const auto read =
                std::from_chars(name.data(), name.data() + name.size(), character, 16);
            if (read.ec != std::errc{} || read.ptr != name.data() + name.size() ||
                !isXmlCharacter(character))
                return false;
        }
        return true;
    }

    // All after the first.
    Parse lines(Parse first) {
        if (first != Parse::Whole) return first;
        while (!names_.empty()) {
            if (const Parse line = nextLine(); line != Parse::Whole) return line;
        }
        return isXmlText(text_.substr(0, position_)) ? Parse::Whole : Parse::Broken;
    }

    Parse expect(std::string_view wanted) {
        const std::string_view found = text_.substr(position_, wanted.size());
        if (found != wanted.substr(0, found.size())) return Parse::Broken;
        if (found.size() < wanted.size()) return Parse::CutShort;
        position_ += wanted.size();
        return Parse::Whole;
    }

    // Inside an element: a child, or the element's end.
    Parse nextLine() {
        std::size_t tabs = 0;
        while (!isAtEnd() && text_[position_] == '\t') ++tabs, ++position_;
        if (isAtEnd()) return Parse::CutShort;
        if (position_ + 1 == text_.size() && text_[position_] == '<') return Parse::CutShort;
        if (text_.substr(position_, 2) == "</") {
            if (tabs + 1 != names_.size()) return Parse::Broken;
            position_ += 2;
            if (const Parse name = expect(names_.back()); name != Parse::Whole) return name;
            if (const Parse end = expect(">\n"); end != Parse::Whole) return end;
            names_.pop_back();
            return Parse::Whole;
        }
        if (tabs != names_.size() || tabs > kDeepestElement) return Parse::Broken;
        return startTag();
    }

    // An element's start, which may be its end, too; with the line feed.
    Parse startTag() {
        if (const Parse open = expect("<"); open != Parse::Whole) return open;
        const std::size_t begin = position_;
        position_ = text_.find_first_of(" />=<\"\n", position_);
        if (position_ == std::string_view::npos) return cutShort();
        const std::string_view name = text_.substr(begin, position_ - begin);
        return isName(name) ? restOfTag(name) : Parse::Broken;
    }

    Parse restOfTag(std::string_view name) {
        for (;;) {
            if (isAtEnd()) return Parse::CutShort;
            if (text_[position_] != ' ') break;
            if (const Parse attribute = this->attribute(); attribute != Parse::Whole)
                return attribute;
        }
        if (text_[position_] == '/') return expect("/>\n");
        const Parse end = expect(">\n");
        if (end == Parse::Whole) names_.push_back(name);
        return end;
    }

    Parse attribute() {
        ++position_;
        const std::size_t begin = position_;
        position_ = text_.find_first_of("= />\"<\n", position_);
        if (position_ == std::string_view::npos) return cutShort();
        const std::string_view name = text_.substr(begin, position_ - begin);
        if (!isName(name)) return Parse::Broken;
        if (names_.empty() && attributes_ < first_.size()) first_[attributes_++] = name;
        if (const Parse quote = expect("=\""); quote != Parse::Whole) return quote;
        const std::size_t end = text_.find('"', position_);
        const std::string_view value = text_.substr(position_, end - position_);
        if (value.find('<') != std::string_view::npos) return Parse::Broken;
        if (end == std::string_view::npos) return cutShort();
        if (!hasGoodReferences(value)) return Parse::Broken;
        position_ = end + 1;
        return Parse::Whole;
    }

    Parse cutShort() {
        position_ = text_.size();
        return Parse::CutShort;
    }

    std::string_view text_;
    std::size_t position_ = 0;
    std::vector<std::string_view> names_;    // of the open elements
    std::array<std::string_view, 5> first_;  // attributes of the record's own tag
    std::size_t attributes_ = 0;
};

// For a record that cannot be parsed: is everything but the texts that stand in it as they were given?
bool isWholeButForTexts(std::string_view text) {
    // After the time stamp, whose form is known here.
    std::size_t quote = kEventStart.size() + kTimestampLength;
    const std::string_view rest = text.substr(quote);
    if (!rest.starts_with("\" tool=\"") && !rest.starts_with("\" toollocation=\"")) return false;
    for (const std::string_view next : kTextsAsGiven) {
        const std::size_t found = text.find(next, quote);
        if (found == std::string_view::npos) return false;
        quote = found + next.size();
    }
    // The action may have quotes in it: any of them can be its end, but none of an inner element.
    const std::string_view tag = text.substr(0, text.find("\n\t"));
    for (std::size_t i = 0; i < kMostQuotes; ++i) {
        quote = tag.find('"', i == 0 ? quote : quote + 1);
        if (quote == std::string_view::npos) return false;
        RecordParser parser(text);
        if (parser.parseAfter(quote) == Parse::Whole && parser.length() == text.size()) return true;
    }
    return false;
}

// The next place where something whole may begin; npos when there is none. Whether one begins at
// the very end of the text, only more text can tell: that place is answered, too.
std::size_t nextStart(std::string_view text, std::size_t from) {
    for (std::size_t i = text.find('<', from); i != std::string_view::npos;
         i = text.find('<', i + 1)) {
        const std::string_view here = text.substr(i);
        if (recordStart(here) != Parse::Broken ||
            here.substr(0, kEventLogFooter.size()) == kEventLogFooter.substr(0, here.size()))
            return i;
    }
    return std::string_view::npos;
}

bool isBlank(char c) { return c == ' ' || c == '\n' || c == '\t' || c == '\r'; }

}  // namespace

bool isXmlText(std::string_view text) {
    while (!text.empty()) {
        const auto c = static_cast<unsigned char>(text[0]);
        if (c >= 0x20 && c < 0x80) {
            text.remove_prefix(1);
            continue;
        }
        const DecodedCharacter next = decodeUtf8(text);
        if (!next.wellFormed || next.character == 0xFFFE || next.character == 0xFFFF) return false;
        if (next.character < 0x20 && c != '\t' && c != '\n' && c != '\r') return false;
        text.remove_prefix(next.length);
    }
    return true;
}

EventLogReader::EventLogReader(Observer observer) : observer_(std::move(observer)) {}

void EventLogReader::read(std::string_view bytes) {
    bytes_ += bytes;
    if (bytes_.size() >= wanted_) process();
}

void EventLogReader::finish() {
    isAtEnd_ = true;
    process();
}

void EventLogReader::process() {
    while (position_ < bytes_.size()) {
        if ((isHeaderOver_ ? body() : header()) == Step::NeedsMore) break;
    }
    offset_ += position_;
    bytes_.erase(0, position_);
    position_ = 0;
    wanted_ = bytes_.size() > kLongRecord ? 2 * bytes_.size() : 0;
}

void EventLogReader::tell(LogPart part, std::size_t length) {
    observer_(part, offset_ + position_, rest().substr(0, length));
    position_ += length;
}

EventLogReader::Step EventLogReader::header() {
    const std::string_view text = rest();
    const bool isOne = text.substr(0, kHeaderStart.size()) == kHeaderStart.substr(0, text.size());
    const std::size_t end = text.find(kHeaderEnd);
    if (isOne && end == std::string_view::npos && text.size() <= kLongestHeader && !isAtEnd_)
        return Step::NeedsMore;
    isHeaderOver_ = true;
    // One that was cut can be followed by records, and at last by another file's header.
    if (isOne && end != std::string_view::npos && text.find(kEventStart) > end &&
        isXmlText(text.substr(0, end)))
        tell(LogPart::Header, end + kHeaderEnd.size());
    return Step::Done;
}

EventLogReader::Step EventLogReader::body() {
    const std::string_view text = rest();
    if (isBlank(text[0])) {
        const auto end = std::find_if_not(text.begin(), text.end(), isBlank);
        tell(LogPart::Blank, static_cast<std::size_t>(end - text.begin()));
        return Step::Done;
    }
    if (text.starts_with(kEventLogFooter)) {
        tell(LogPart::Footer, kEventLogFooter.size());
        return Step::Done;
    }
    if (!isAtEnd_ && kEventLogFooter.starts_with(text)) return Step::NeedsMore;
    return record();
}

EventLogReader::Step EventLogReader::record() {
    const std::string_view text = rest();
    const Parse start = recordStart(text);
    if (start == Parse::CutShort && !isAtEnd_) return Step::NeedsMore;
    if (start != Parse::Whole) return piece(1);
    RecordParser parser(text);
    const Parse parsed = parser.parse();
    if (parsed == Parse::Whole) {
        tell(LogPart::Record, parser.length());
        return Step::Done;
    }
    if (parsed == Parse::CutShort && !isAtEnd_ && text.size() < kLongestRecord)
        return Step::NeedsMore;
    return piece(1);
}

// What begins here ends before the next thing that begins.
EventLogReader::Step EventLogReader::piece(std::size_t from) {
    const std::string_view text = rest();
    const std::size_t next = nextStart(text, from);
    const bool isRecord = recordStart(text) == Parse::Whole;
    if (next == std::string_view::npos && isRecord && !isAtEnd_ && text.size() < kLongestRecord)
        return Step::NeedsMore;
    const std::string_view here = text.substr(0, next);
    if (isRecord && next != std::string_view::npos && !isAtEnd_ &&
        recordStart(text.substr(next)) == Parse::CutShort)
        return Step::NeedsMore;
    tell(isRecord && isWholeButForTexts(here) ? LogPart::Record : LogPart::Piece, here.size());
    return Step::Done;
}

void EventLogGlance::read(std::string_view bytes) {
    if (std::memchr(bytes.data(), 0, bytes.size())) isSound_ = false;
    if (!isSound_) return;
    if (!carried_.empty() || !isHeaderOver_) {
        carried_ += bytes;
        bytes = carried_;
    }
    if (!isHeaderOver_) bytes = header(bytes);
    if (!isHeaderOver_) return;
    while (isSound_) {
        const auto* const end =
            static_cast<const char*>(std::memchr(bytes.data(), '\n', bytes.size()));
        if (!end) break;
        const auto length = static_cast<std::size_t>(end - bytes.data());
        line(bytes.substr(0, length));
        bytes.remove_prefix(length + 1);
    }
    carried_ = std::string(bytes);
}

// What follows the header; as long as it is not complete, all of it.
std::string_view EventLogGlance::header(std::string_view bytes) {
    const std::size_t end = bytes.find(kHeaderEnd);
    if (end == std::string_view::npos) {
        isSound_ = bytes.size() <= kLongestHeader;
        return bytes;
    }
    isHeaderOver_ = true;
    isSound_ = bytes.starts_with(kHeaderStart) && bytes.find(kEventStart) > end &&
               isXmlText(bytes.substr(0, end));
    return bytes.substr(end + kHeaderEnd.size());
}

void EventLogGlance::line(std::string_view line) {
    std::size_t tabs = 0;
    while (tabs < line.size() && line[tabs] == '\t') ++tabs;
    const std::string_view tag = line.substr(tabs);
    if (tag.size() < 4 || tag[0] != '<' || tag.back() != '>' ||
        std::memchr(tag.data() + 1, '<', tag.size() - 1)) {
        isSound_ = false;
        return;
    }
    const bool isEnd = tag[1] == '/';
    const bool isEmpty = tag[tag.size() - 2] == '/';
    isSound_ = isEnd ? tabs + 1 == depth_ : tabs == depth_;
    if (depth_ == 0 && recordStart(tag) != Parse::Whole) isSound_ = false;
    if (depth_ == 1 && isEnd && tag != "</event>") isSound_ = false;
    if (isEnd) {
        --depth_;
    } else if (!isEmpty) {
        ++depth_;
    }
}

bool EventLogGlance::isSound() const {
    return isSound_ && isHeaderOver_ && depth_ == 0 && carried_.empty();
}

}  // namespace utilia
