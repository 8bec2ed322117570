#include "Applications/utiliactl/DateArgument.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <climits>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <glib.h>

#include "Applications/utiliactl/PlainText.h"

namespace utilia::control {
namespace {

constexpr double kLast = 253402300799.0;  // 9999-12-31T23:59:59, in Unix time

Error refused(std::string_view text, const std::string& why) {
    return Error::utilia(UtiliaErrorCode::Refused, inQuotes(text) + " " + why);
}

Error noDate(std::string_view text) {
    return refused(text, "is no date: give it as 2026-11-21T10:00, 2026-11-21T10:00:00+01:00, "
                         "or as +90m from now");
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Takes text from its beginning.
class Scanner final {
public:
    explicit Scanner(std::string_view text) : rest_(text) {}

    bool isAtEnd() const { return rest_.empty(); }
    bool take(char c) {
        if (!rest_.starts_with(c)) return false;
        rest_.remove_prefix(1);
        return true;
    }
    // Exactly so many digits.
    std::optional<int> number(std::size_t digits) {
        if (rest_.size() < digits ||
            !std::all_of(rest_.begin(), rest_.begin() + static_cast<std::ptrdiff_t>(digits),
                         isDigit)) {
            return std::nullopt;
        }
        int value = 0;
        std::from_chars(rest_.data(), rest_.data() + digits, value);
        rest_.remove_prefix(digits);
        return value;
    }
    // Digits with or without a fraction; no sign and no exponent.
    std::optional<double> decimal() {
        if (rest_.empty() || !isDigit(rest_.front())) return std::nullopt;
        double value = 0;
        const char* const end = rest_.data() + rest_.size();
        const auto [stop, error] =
            std::from_chars(rest_.data(), end, value, std::chars_format::fixed);
        if (error != std::errc()) return std::nullopt;
        rest_.remove_prefix(static_cast<std::size_t>(stop - rest_.data()));
        return value;
    }

private:
    std::string_view rest_;
};

std::optional<double> secondsFromNow(Scanner scanner) {
    const auto count = scanner.decimal();
    if (!count) return std::nullopt;
    double unit = 1;
    if (scanner.take('m')) {
        unit = 60;
    } else if (scanner.take('h')) {
        unit = 3600;
    } else if (scanner.take('d')) {
        unit = 86400;
    } else {
        scanner.take('s');
    }
    return scanner.isAtEnd() ? std::optional(*count * unit) : std::nullopt;
}

// As Unix time, as if it were in UTC.
std::optional<std::int64_t> takeDay(Scanner& scanner) {
    const auto year = scanner.number(4);
    if (!year || !scanner.take('-')) return std::nullopt;
    const auto month = scanner.number(2);
    if (!month || !scanner.take('-')) return std::nullopt;
    const auto day = scanner.number(2);
    if (!day) return std::nullopt;
    using namespace std::chrono;
    const year_month_day date{std::chrono::year(*year),
                              std::chrono::month(static_cast<unsigned>(*month)),
                              std::chrono::day(static_cast<unsigned>(*day))};
    if (!date.ok() || *year == 0) return std::nullopt;
    return seconds(sys_days(date).time_since_epoch()).count();
}

std::optional<double> takeTime(Scanner& scanner) {
    const auto hours = scanner.number(2);
    if (!hours || *hours > 23 || !scanner.take(':')) return std::nullopt;
    const auto minutes = scanner.number(2);
    if (!minutes || *minutes > 59) return std::nullopt;
    double seconds = 0;
    if (scanner.take(':')) {
        // Two digits before the fraction.
        Scanner digits = scanner;
        const auto whole = digits.number(2);
        const auto taken = scanner.decimal();
        if (!whole || !taken || *taken >= 60 || static_cast<int>(*taken) != *whole)
            return std::nullopt;
        seconds = *taken;
    }
    return *hours * 3600 + *minutes * 60 + seconds;
}

// Seconds east of Greenwich.
std::optional<int> takeZone(Scanner& scanner) {
    if (scanner.take('Z')) return 0;
    const int sign = scanner.take('+') ? 1 : scanner.take('-') ? -1 : 0;
    const auto hours = scanner.number(2);
    if (sign == 0 || !hours || *hours > 23) return std::nullopt;
    if (scanner.isAtEnd()) return sign * *hours * 3600;
    scanner.take(':');
    const auto minutes = scanner.number(2);
    if (!minutes || *minutes > 59) return std::nullopt;
    return sign * (*hours * 3600 + *minutes * 60);
}

// Of the user's zone at this local time; empty when that time does not come.
std::optional<int> localOffset(std::int64_t localTime) {
    const std::unique_ptr<GTimeZone, void (*)(GTimeZone*)> zone(g_time_zone_new_local(),
                                                                g_time_zone_unref);
    std::optional<int> offset;
    // The two differ where the time comes twice; farther east is earlier.
    for (const GTimeType type : {G_TIME_TYPE_STANDARD, G_TIME_TYPE_DAYLIGHT}) {
        const int interval = g_time_zone_find_interval(zone.get(), type, localTime);
        if (interval < 0) return std::nullopt;
        offset = std::max(offset.value_or(INT_MIN), g_time_zone_get_offset(zone.get(), interval));
    }
    return offset;
}

}  // namespace

Result<Date> dateFromText(std::string_view text, Date now) {
    double unixTime = 0;
    if (Scanner scanner(text); scanner.take('+')) {
        const auto seconds = secondsFromNow(scanner);
        if (!seconds) return noDate(text);
        unixTime = now.unixTime() + *seconds;
    } else {
        const auto day = takeDay(scanner);
        if (!day) return noDate(text);
        double time = 0;
        if (!scanner.isAtEnd()) {
            if (!scanner.take('T') && !scanner.take('t') && !scanner.take(' ')) return noDate(text);
            const auto taken = takeTime(scanner);
            if (!taken) return noDate(text);
            time = *taken;
        }
        const std::int64_t whole = *day + static_cast<std::int64_t>(time);
        const bool isLocal = scanner.isAtEnd();
        const auto offset = isLocal ? localOffset(whole) : takeZone(scanner);
        if (!offset && isLocal) {
            return refused(text, "does not come where you are: clocks are put forward over it");
        }
        if (!offset || !scanner.isAtEnd()) return noDate(text);
        unixTime = static_cast<double>(*day) + time - *offset;
    }
    if (unixTime > kLast) return refused(text, "lies after the year 9999");
    return Date::fromUnixTime(unixTime);
}

}  // namespace utilia::control
