#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"
#include "Common/Platform/JSONSerialization.h"

namespace utilia::platform {

// Reads one JSON text in UTF-8 (JSONSerialization.h says what is accepted). One pass, no copy of the
// text; an object is for one text.
class JSONReader final {
public:
    // `notes` may be null.
    JSONReader(std::string_view text, JSONNotes* notes) : text_(text), notes_(notes) {}

    Result<Value> read();

private:
    std::optional<Value> readValue(std::size_t depth);
    std::optional<Value> readObject(std::size_t depth);
    std::optional<Value> readArray(std::size_t depth);
    std::optional<Value> readNumber();
    std::optional<std::string> readString();
    bool readEscape(std::string& string);
    bool readUnicodeEscape(std::string& string);
    std::optional<unsigned> readFourHexDigits();
    bool expectWord(std::string_view word);

    bool skipDigits();  // whether there was one
    void skipBlanks();
    bool isAt(char c) const { return at_ < text_.size() && text_[at_] == c; }
    bool take(char c);
    // Remembers the first complaint and where it is; answers what every caller can return.
    std::nullopt_t fail(const char* what) { return failAt(at_, what); }
    std::nullopt_t failAt(std::size_t offset, const char* what);
    JSONPosition positionOf(std::size_t offset) const;
    void noteDuplicates();

    std::string_view text_;
    JSONNotes* notes_;
    std::vector<std::pair<std::size_t, std::string>> duplicates_;  // offsets and keys
    std::size_t at_ = 0;
    const char* complaint_ = nullptr;
    std::size_t complaintAt_ = 0;
};

}  // namespace utilia::platform
