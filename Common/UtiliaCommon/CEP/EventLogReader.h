#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

// Finds out what the bytes of a log file are, from its beginning to its end.
//
// A writer that is killed, or whose disk is full, leaves the beginning of a record without its line
// feed, and the next record follows directly. Whatever else the file has been through (a power
// failure, another program), each record that is whole is found, in order, and once.
//
// Threads: only the one that uses the object.

namespace utilia {

// Nobody may write a longer one.
inline constexpr std::size_t kLongestRecord = std::size_t{64} << 20;

// Whether an XML document may contain all of its characters.
bool isXmlText(std::string_view text);

enum class LogPart {
    Header,  // at most one, and first
    Record,  // whole, with its line feed
    Blank,   // white space between records
    Footer,  // anywhere: of a process that was killed while it ended the file
    Piece,   // of no use to a document
};

class EventLogReader final {
public:
    // Told each part with the place of its first byte; all parts together are all bytes.
    using Observer =
        std::function<void(LogPart part, std::uint64_t offset, std::string_view bytes)>;

    explicit EventLogReader(Observer observer);

    void read(std::string_view bytes);  // what follows
    void finish();                      // nothing follows

private:
    enum class Step { Done, NeedsMore };

    void process();
    Step header();
    Step body();
    Step record();
    Step piece(std::size_t from);
    void tell(LogPart part, std::size_t length);
    std::string_view rest() const { return std::string_view(bytes_).substr(position_); }

    Observer observer_;
    std::string bytes_;  // those that are not told yet, from position_ on
    std::size_t position_ = 0;
    std::uint64_t offset_ = 0;  // of bytes_[0]
    std::size_t wanted_ = 0;    // as many are needed for another try
    bool isHeaderOver_ = false;
    bool isAtEnd_ = false;
};

// A look at a log without footer in great haste, for nearly all are in order and a writer wants to
// go on. One that it calls sound has no piece in it; one that it does not has to be read.
//
// It goes by lines. A record begins its first line and ends one; what lies between begins with as
// many tabs as its depth asks for; and no line has a second "<", which no value contains. A piece
// breaks one of these rules, and so do bytes that were never written, and all that is unknown here.
class EventLogGlance final {
public:
    void read(std::string_view bytes);
    // Whether the file, which ends here, is a header and whole records.
    bool isSound() const;

private:
    void line(std::string_view line);
    std::string_view header(std::string_view bytes);

    std::string carried_;  // a line that goes on in the next bytes, or the header
    std::size_t depth_ = 0;
    bool isHeaderOver_ = false;
    bool isSound_ = true;
};

}  // namespace utilia
