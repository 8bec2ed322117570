#include "Applications/utiliactl/JsonText.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <memory>

#include <glib.h>

namespace utilia::control {
namespace {

struct GFree {
    void operator()(gchar* text) const { g_free(text); }
};

}  // namespace

Json jsonFromValue(const Value& value) {
    switch (value.type()) {
    case Value::Type::Boolean:
        return *value.boolean();
    case Value::Type::Integer:
        if (const auto* large = value.largeInteger()) return *large;
        return *value.integer();
    case Value::Type::Real:
        if (!std::isfinite(*value.real())) return nullptr;
        return *value.real();
    case Value::Type::String:
        return *value.string();
    case Value::Type::Bytes:
        return base64Text(*value.data());
    case Value::Type::Date:
        return dateText(*value.date());
    case Value::Type::Array: {
        Json list = Json::array();
        for (const Value& element : *value.array()) list.push_back(jsonFromValue(element));
        return list;
    }
    case Value::Type::Dictionary: {
        Json object = Json::object();
        for (const auto& [key, element] : *value.dictionary()) object[key] = jsonFromValue(element);
        return object;
    }
    case Value::Type::Null:
        return nullptr;
    }
    return nullptr;
}

std::string textOfJson(const Json& json) {
    return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string dateText(Date date) {
    using namespace std::chrono;
    constexpr double kFirst = -62167219200.0;  // 0000-01-01, in Unix time
    constexpr double kLast = 253402300799.0;   // 9999-12-31T23:59:59
    const double unixTime = date.unixTime();
    if (!(unixTime >= kFirst && unixTime < kLast)) {
        char text[64];
        std::snprintf(text, sizeof text, "@%.17g", date.secondsSinceReferenceDate);
        return text;
    }
    const sys_time<milliseconds> moment{milliseconds(std::llround(unixTime * 1000))};
    const auto day = floor<days>(moment);
    const year_month_day calendar{day};
    const hh_mm_ss time{moment - day};
    char text[64];
    std::snprintf(
        text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(calendar.year()),
        static_cast<unsigned>(calendar.month()), static_cast<unsigned>(calendar.day()),
        static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
        static_cast<int>(time.seconds().count()), static_cast<int>(time.subseconds().count()));
    return text;
}

std::string base64Text(const Data& data) {
    const std::unique_ptr<gchar, GFree> text(g_base64_encode(data.data(), data.size()));
    return text.get();
}

}  // namespace utilia::control
