// Events of any action, options, details and attributes make documents that libxml2 reads, whatever was cut from the
// log on the way; and of any bytes the reader of logs keeps a document, too.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include <libxml/parser.h>

#include "Common/UtiliaCommon/CEP/EventLogHeader.h"
#include "Common/UtiliaCommon/CEP/EventLogReader.h"
#include "Common/UtiliaCommon/CEP/EventRecord.h"

namespace {

using namespace utilia;

// Draws values from the fuzzer's bytes; zeros when they are used up.
class Source final {
public:
    explicit Source(std::string_view bytes) : bytes_(bytes) {}

    std::uint8_t byte() {
        if (bytes_.empty()) return 0;
        const auto first = static_cast<std::uint8_t>(bytes_[0]);
        bytes_.remove_prefix(1);
        return first;
    }
    std::string text() {
        const std::size_t size = std::min<std::size_t>(byte(), bytes_.size());
        const std::string text(bytes_.substr(0, size));
        bytes_.remove_prefix(size);
        return text;
    }
    std::int64_t number() {
        std::uint64_t number = 0;
        for (int i = 0; i < 8; ++i) number = number << 8 | byte();
        return static_cast<std::int64_t>(number);
    }
    double real() {
        const std::int64_t bits = number();
        double real;
        static_assert(sizeof real == sizeof bits);
        __builtin_memcpy(&real, &bits, sizeof real);
        return real;
    }
    bool isEmpty() const { return bytes_.empty(); }

private:
    std::string_view bytes_;
};

Value anyValue(Source& source, int depth);

Dictionary anyDictionary(Source& source, int depth) {
    Dictionary dictionary;
    for (int count = source.byte() % 8; count > 0; --count) {
        std::string key = source.text();
        dictionary.set(key, anyValue(source, depth + 1));
    }
    return dictionary;
}

Value anyValue(Source& source, int depth) {
    switch (source.byte() % 10) {
    case 0:
        return source.byte() % 2 == 0;
    case 1:
        return source.number();
    case 2:
        return static_cast<std::uint64_t>(source.number());
    case 3:
        return source.real();
    case 4:
        return Date{source.real()};
    case 5:
        return nullptr;
    case 6:
        return Data{source.byte()};
    case 7:
        if (depth < 20) return anyDictionary(source, depth);
        return nullptr;
    case 8: {
        Array array;
        for (int count = depth < 20 ? source.byte() % 5 : 0; count > 0; --count)
            array.append(anyValue(source, depth + 1));
        return array;
    }
    default:
        return source.text();
    }
}

// What is written as it is has no markup here.
std::string withoutMarkup(std::string text) {
    for (char& c : text) {
        if (c == '<' || c == '>' || c == '&' || c == '"') c = '_';
    }
    return text;
}

std::string headerOf(const EventLogFacts& facts) {
    std::string header;
    for (const std::string_view piece : eventLogHeader(facts)) header += piece;
    return header;
}

void mustBeWellFormed(const std::string& records) {
    const std::string document = headerOf({}) + records + std::string(kEventLogFooter);
    xmlParserCtxtPtr context = xmlNewParserCtxt();
    const xmlDocPtr parsed = xmlCtxtReadMemory(
        context, document.data(), static_cast<int>(document.size()), nullptr, nullptr,
        XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_HUGE);
    const bool isGood = parsed && context->wellFormed && context->nsWellFormed;
    xmlFreeDoc(parsed);
    xmlFreeParserCtxt(context);
    if (!isGood) std::abort();
}

std::string recordsOf(std::string_view log) {
    std::string records;
    EventLogReader reader([&](LogPart part, std::uint64_t, std::string_view bytes) {
        if (part == LogPart::Record) records += bytes;
    });
    reader.read(log.substr(0, log.size() / 2));
    reader.read(log.substr(log.size() / 2));
    reader.finish();
    return records;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Source source({reinterpret_cast<const char*>(data), size});
    const std::size_t cut = source.byte();
    const EventSource who{withoutMarkup(source.text()), withoutMarkup(source.text()),
                          withoutMarkup(source.text())};
    const std::string action = withoutMarkup(source.text());
    const Dictionary attributes = anyDictionary(source, 0);
    const Dictionary options = anyDictionary(source, 0);
    const Dictionary details = anyDictionary(source, 0);
    TextBuffer out;
    appendEventRecord(out, Date{700'000'000}, who, action, &attributes, &options, &details);
    const std::string record(out.text());
    mustBeWellFormed(record);

    // Cut, and followed by another one: that one is kept, and of the first one all or nothing.
    TextBuffer other;
    appendEventRecord(other, Date{}, {}, "Next", nullptr, nullptr, nullptr);
    const std::string next(other.text());
    const std::string piece = record.substr(0, record.size() * cut / 255);
    const bool isWhole = piece.size() == record.size();
    const std::string kept = recordsOf(headerOf({}) + piece + next);
    if (kept != (isWhole ? record + next : next)) std::abort();

    // Anything at all.
    (void)recordsOf({reinterpret_cast<const char*>(data), size});
    return 0;
}
