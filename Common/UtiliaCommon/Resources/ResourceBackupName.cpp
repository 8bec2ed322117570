#include "Common/UtiliaCommon/Resources/ResourceBackupName.h"

#include <array>
#include <charconv>
#include <limits>

namespace utilia {

std::string resourceBackupName(std::string_view fileName, Date now) {
    // As "%f" without a locale. The largest number has more digits than any date.
    std::array<char, std::numeric_limits<double>::max_exponent10 + 16> time;
    const auto written = std::to_chars(time.data(), time.data() + time.size(),
                                       now.secondsSinceReferenceDate, std::chars_format::fixed, 6);
    return std::string(fileName).append("_").append(time.data(), written.ptr).append(".bak");
}

}  // namespace utilia
