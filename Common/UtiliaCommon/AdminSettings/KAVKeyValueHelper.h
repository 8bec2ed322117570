#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Foundation/Export.h"

namespace utilia {

// What an administrator types, as values of the settings.
//
// Threads: any.
class UTILIA_EXPORT KAVKeyValueHelper final {
public:
    KAVKeyValueHelper() = delete;

    // The white-list that a text such as "Timer, MoonPhase" stands for: the pieces between its
    // commas in their order, without the blanks around them (line breaks are none), empty pieces
    // too. A text of blanks alone is true with an empty `outArray`: the key is to be removed. Names
    // are not looked up, and keep their letter case.
    // False with an empty `outArray` and an `error` of -1 without a text, and, with one log line,
    // when "business-toolset-only" stands beside other pieces; otherwise `error` is 0. False, and
    // nothing is touched, without either pointer.
    static bool arrayFromWhiteListString(std::optional<std::string_view> string,
                                         std::optional<std::vector<std::string>>* outArray,
                                         std::int64_t* error);
};

}  // namespace utilia
