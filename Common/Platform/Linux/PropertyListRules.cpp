#include "Common/Platform/Linux/PropertyListRules.h"

#include <cmath>

#include "Common/Foundation/Unicode.h"
#include "Common/Platform/PropertyListSerialization.h"

namespace utilia::platform {
namespace {

class Check final {
public:
    // Null when the value is in order, else what is wrong with it.
    const char* visit(const Value& value, std::size_t depth) {
        if (const char* wrong = spend(kPropertyListNodeCost)) return wrong;
        switch (value.type()) {
        case Value::Type::String:
            return text(*value.string());
        case Value::Type::Bytes:
            return spend(value.data()->size());
        case Value::Type::Date:
            return std::isfinite(value.date()->secondsSinceReferenceDate)
                       ? nullptr
                       : "a date that is not finite";
        case Value::Type::Array:
            if (depth == kPropertyListMaximumDepth) return kTooDeep;
            for (const Value& element : *value.array()) {
                if (const char* wrong = visit(element, depth + 1)) return wrong;
            }
            return nullptr;
        case Value::Type::Dictionary:
            if (depth == kPropertyListMaximumDepth) return kTooDeep;
            for (const auto& [key, element] : *value.dictionary()) {
                if (const char* wrong = spend(kPropertyListNodeCost)) return wrong;
                if (const char* wrong = text(key)) return wrong;
                if (const char* wrong = visit(element, depth + 1)) return wrong;
            }
            return nullptr;
        case Value::Type::Boolean:
        case Value::Type::Integer:
        case Value::Type::Real:
            return nullptr;
        case Value::Type::Null:
            return "null";
        }
        return nullptr;
    }

private:
    static constexpr const char* kTooDeep = "arrays and dictionaries nested too deep";

    const char* text(const std::string& text) {
        if (!isPropertyListText(text)) return "text that is not UTF-8 or holds NUL";
        return spend(text.size());
    }

    const char* spend(std::size_t cost) {
        if (cost > left_) return "more than a property list may hold";
        left_ -= cost;
        return nullptr;
    }

    std::size_t left_ = kPropertyListMaximumCost;
};

}  // namespace

bool isPropertyListText(std::string_view text) {
    return text.find('\0') == std::string_view::npos && isValidUtf8(text);
}

Result<void> checkPropertyList(const Value& value) {
    if (const char* wrong = Check().visit(value, 0)) {
        return Error::cocoa(CocoaErrorCode::PropertyListWriteInvalid,
                            std::string("property list: ") + wrong);
    }
    return {};
}

}  // namespace utilia::platform
