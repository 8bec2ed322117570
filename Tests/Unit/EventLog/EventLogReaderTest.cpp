#include <algorithm>
#include <utility>
#include <vector>

#include "Common/UtiliaCommon/CEP/EventLogReader.h"
#include "Tests/Unit/EventLog/LogSample.h"
#include "Tests/Unit/EventLog/XmlDocument.h"

namespace utilia {
namespace {

using test::sampleHeader;
using test::sampleRecord;
using Parts = std::vector<std::pair<LogPart, std::string>>;

// In pieces of `chunk` bytes. Checks that all parts together are the content.
Parts partsOf(const std::string& content, std::size_t chunk = std::string::npos) {
    Parts parts;
    std::uint64_t end = 0;
    EventLogReader reader([&](LogPart part, std::uint64_t offset, std::string_view bytes) {
        EXPECT_EQ(offset, end);
        EXPECT_EQ(content.substr(offset, bytes.size()), bytes);
        end = offset + bytes.size();
        if (!parts.empty() && parts.back().first == part &&
            (part == LogPart::Piece || part == LogPart::Blank)) {
            parts.back().second += bytes;
        } else {
            parts.emplace_back(part, bytes);
        }
    });
    for (std::size_t i = 0; i < content.size(); i += std::min(chunk, content.size()))
        reader.read(std::string_view(content).substr(i, chunk));
    reader.finish();
    EXPECT_EQ(end, content.size());
    return parts;
}

std::string recordsOf(const Parts& parts) {
    std::string records;
    for (const auto& [part, bytes] : parts) {
        if (part == LogPart::Record) records += bytes;
    }
    return records;
}

bool looksSound(const std::string& content, std::size_t chunk = std::string::npos) {
    EventLogGlance glance;
    for (std::size_t i = 0; i < content.size(); i += std::min(chunk, content.size()))
        glance.read(std::string_view(content).substr(i, chunk));
    return glance.isSound();
}

const std::string kFooter(kEventLogFooter);

TEST(EventLogReader, FindsHeaderRecordsAndFooter) {
    const std::string a = sampleRecord("a", 1);
    const std::string b = sampleRecord("b", 3);
    const Parts expected = {{LogPart::Header, sampleHeader()},
                            {LogPart::Record, a},
                            {LogPart::Record, b},
                            {LogPart::Footer, kFooter}};
    const std::string content = sampleHeader() + a + b + kFooter;
    for (const std::size_t chunk :
         {std::size_t{1}, std::size_t{7}, std::size_t{64}, content.size()})
        EXPECT_EQ(partsOf(content, chunk), expected);
}

TEST(EventLogReader, SetsEveryPieceAsideAndKeepsTheRecordThatWasGluedToIt) {
    const std::string before = sampleRecord("before", 1);
    for (const int number : {1, 3}) {  // one without and one with inner elements
        const std::string cut = sampleRecord("cut", number);
        for (const int next : {2, 6}) {
            const std::string after = sampleRecord("after", next);
            for (std::size_t length = 1; length < cut.size(); ++length) {
                const std::string content = sampleHeader() + before + cut.substr(0, length) + after;
                SCOPED_TRACE(cut.substr(0, length));
                const Parts parts = partsOf(content);
                EXPECT_EQ(recordsOf(parts), before + after);
                EXPECT_FALSE(looksSound(content));
                // At the end of the file, and before its footer.
                EXPECT_EQ(recordsOf(partsOf(sampleHeader() + before + cut.substr(0, length))),
                          before);
                EXPECT_FALSE(looksSound(sampleHeader() + before + cut.substr(0, length)));
                EXPECT_EQ(
                    recordsOf(partsOf(sampleHeader() + before + cut.substr(0, length) + kFooter)),
                    before);
            }
        }
    }
}

TEST(EventLogReader, FindsTheSamePartsHoweverTheBytesCome) {
    const std::string cut = sampleRecord("cut", 3).substr(0, 200);
    const std::string content = sampleHeader() + sampleRecord("a", 1) + cut + sampleRecord("b", 2) +
                                "junk" + kFooter + sampleRecord("c", 3) + cut + cut +
                                kFooter.substr(0, 20);
    const Parts expected = partsOf(content);
    EXPECT_EQ(recordsOf(expected),
              sampleRecord("a", 1) + sampleRecord("b", 2) + sampleRecord("c", 3));
    for (std::size_t chunk = 1; chunk < 50; ++chunk) EXPECT_EQ(partsOf(content, chunk), expected);
}

TEST(EventLogReader, FindsTheFooterAnywhere) {
    const Parts parts = partsOf(sampleHeader() + kFooter + sampleRecord("a", 1) + kFooter);
    const Parts expected = {{LogPart::Header, sampleHeader()},
                            {LogPart::Footer, kFooter},
                            {LogPart::Record, sampleRecord("a", 1)},
                            {LogPart::Footer, kFooter}};
    EXPECT_EQ(parts, expected);
}

TEST(EventLogReader, FindsRecordsWithoutHeader) {
    EXPECT_EQ(recordsOf(partsOf(sampleRecord("a", 1) + sampleRecord("b", 2))),
              sampleRecord("a", 1) + sampleRecord("b", 2));
    // A header that was cut, and what came then.
    const std::string header = sampleHeader();
    for (std::size_t length = 1; length < header.size(); ++length) {
        const Parts parts = partsOf(header.substr(0, length) + sampleRecord("a", 1));
        EXPECT_EQ(recordsOf(parts), sampleRecord("a", 1));
        EXPECT_NE(parts[0].first, LogPart::Header);
        EXPECT_FALSE(looksSound(header.substr(0, length) + sampleRecord("a", 1)));
    }
}

TEST(EventLogReader, TakesNoNestedElementForARecord) {
    const Dictionary inner{{"timestamp", "2021-03-05 05:06:07.123"}, {"tool", "x"}};
    const Dictionary details{{"event", inner}, {"more", Array{inner}}};
    TextBuffer out;
    appendEventRecord(out, Date{}, {}, "Sample", nullptr, nullptr, &details);
    const std::string nested(out.text());
    const Parts parts = partsOf(sampleHeader() + nested + sampleRecord("a", 1));
    ASSERT_EQ(parts.size(), 3u);
    EXPECT_EQ(parts[1].second, nested);
}

TEST(EventLogReader, TakesNoNestedElementOfAPieceForARecord) {
    const Dictionary inner{{"timestamp", "2021-03-05 05:06:07.123"}, {"tool", "x"}};
    const Dictionary details{{"event", inner}, {"more", inner}};
    TextBuffer out;
    appendEventRecord(out, Date{}, {}, "Sample", nullptr, nullptr, &details);
    const std::string nested(out.text());
    for (std::size_t length = 1; length < nested.size(); ++length) {
        const std::string piece = nested.substr(0, length);
        EXPECT_EQ(recordsOf(partsOf(sampleHeader() + piece + sampleRecord("a", 1))),
                  sampleRecord("a", 1))
            << piece;
    }
}

TEST(EventLogReader, KeepsNoRecordWithADamagedReference) {
    const std::string sound = sampleRecord("a", 1);
    for (const auto& [from, to] : {std::pair{"&amp;", "&ampa"},
                                   {"&amp;", "&bmp;"},
                                   {"&#xFC;", "&#xZC;"},
                                   {"&#xFC;", "&#x0C;"},
                                   {"&#xFC;", "&#xFCa"}}) {
        std::string damaged = sound;
        damaged.replace(damaged.find(from), std::string(from).size(), to);
        EXPECT_EQ(recordsOf(partsOf(sampleHeader() + damaged + sampleRecord("b", 2))),
                  sampleRecord("b", 2))
            << to;
    }
}

TEST(EventLogReader, KeepsARecordWhoseActionHasMarkup) {
    const Dictionary details{{"k", Array{"a"}}};
    for (const char* action : {"a<b", "say \"x\"", "<event>", "a\nb", "&", "</details>"}) {
        for (const Dictionary* some : {&details, static_cast<const Dictionary*>(nullptr)}) {
            TextBuffer out;
            appendEventRecord(out, Date{}, {}, action, nullptr, nullptr, some);
            const std::string odd(out.text());
            EXPECT_EQ(recordsOf(partsOf(sampleHeader() + sampleRecord("a", 1) + odd +
                                        sampleRecord("b", 2))),
                      sampleRecord("a", 1) + odd + sampleRecord("b", 2))
                << action;
        }
    }
}

TEST(EventLogReader, KeepsNoRecordWithBytesThatWereNeverWritten) {
    std::string zeroed = sampleRecord("a", 1);
    std::fill(zeroed.begin() + 100, zeroed.begin() + 120, '\0');
    const std::string content = sampleHeader() + zeroed + sampleRecord("b", 2);
    EXPECT_EQ(recordsOf(partsOf(content)), sampleRecord("b", 2));
    EXPECT_FALSE(looksSound(content));
    const std::string zeros(100'000, '\0');
    EXPECT_EQ(recordsOf(partsOf(zeros + sampleRecord("b", 2) + zeros, 1000)), sampleRecord("b", 2));
}

TEST(EventLogReader, FindsSoundWhatTheWritersMake) {
    std::string content = sampleHeader();
    for (int i = 0; i < 100; ++i) {
        content += sampleRecord("a", i);
        EXPECT_TRUE(looksSound(content));
        EXPECT_TRUE(looksSound(content, 100));
    }
    EXPECT_TRUE(looksSound(sampleHeader()));
    EXPECT_FALSE(looksSound(""));
    EXPECT_FALSE(looksSound(content + kFooter));
    EXPECT_FALSE(looksSound(content + "\n"));
}

// Each byte changed, left out, or doubled: what the reader keeps is a document.
TEST(EventLogReader, KeepsWhatMakesADocumentOfEveryDamagedFile) {
    const std::string sound =
        sampleHeader() + sampleRecord("a", 1) + sampleRecord("b", 3) + sampleRecord("c", 5);
    const std::size_t begin = sampleHeader().size();
    for (std::size_t i = begin; i < sound.size(); ++i) {
        for (const char byte : {'\0', ' ', '\n', '\t', '/', 'a'}) {
            std::string damaged = sound;
            damaged[i] = byte;
            const Parts parts = partsOf(damaged);
            const auto document = test::XmlDocument::parse(test::document(recordsOf(parts)));
            ASSERT_TRUE(document) << damaged;
            ASSERT_GE(document->events().size(), 2u);
        }
        std::string shorter = sound;
        shorter.erase(i, 1);
        ASSERT_TRUE(test::XmlDocument::parse(test::document(recordsOf(partsOf(shorter)))));
    }
}

}  // namespace
}  // namespace utilia
