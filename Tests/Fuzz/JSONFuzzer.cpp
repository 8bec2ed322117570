// The JSON reader beside a reader of others: for UTF-8 both must accept the same texts (within our limits) and read the
// same values. What was accepted can be written in both forms and reads back.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include <nlohmann/json.hpp>

#include "Common/Foundation/Unicode.h"
#include "Common/Platform/JSONSerialization.h"

namespace {

using namespace utilia;
using namespace utilia::platform;
using Json = nlohmann::json;

bool isSameNumber(const Value& value, const Json& json) {
    if (json.is_number_float()) return value.real() && *value.real() == json.get<double>();
    if (const auto* large = value.largeInteger()) return json == *large;
    return value.integer() && json == *value.integer();
}

// Of two members with one key the last counts in both.
bool isSame(const Value& value, const Json& json) {
    if (json.is_null()) return value.isNull();
    if (json.is_boolean()) return value.boolean() && *value.boolean() == json.get<bool>();
    if (json.is_string()) return value.string() && *value.string() == json.get<std::string>();
    if (json.is_number()) return isSameNumber(value, json);
    if (json.is_array()) {
        const Array* const array = value.array();
        return array && std::equal(array->begin(), array->end(), json.begin(), json.end(), isSame);
    }
    const Dictionary* const dictionary = value.dictionary();
    return dictionary && dictionary->size() == json.size() &&
           std::all_of(dictionary->begin(), dictionary->end(), [&](const auto& entry) {
               return json.contains(entry.first) && isSame(entry.second, json[entry.first]);
           });
}

std::size_t depthOf(std::string_view text) {
    std::size_t depth = 0;
    std::size_t deepest = 0;
    for (const char c : text) {
        if (c == '[' || c == '{') deepest = std::max(deepest, ++depth);
        if ((c == ']' || c == '}') && depth > 0) --depth;
    }
    return deepest;
}

void compareWithOthers(std::string_view text, const Result<Value>& value) {
    // The other one ends at a NUL, which for ours is another encoding or a mistake.
    const bool isPlain = isValidUtf8(text) && text.find('\0') == text.npos;
    if (!isPlain || depthOf(text) > kJSONMaximumDepth) return;
    const Json json = Json::parse(text, nullptr, false);
    const bool isAccepted = !json.is_discarded() && json.is_structured();
    if (isAccepted != value.has_value()) std::abort();
    if (value && !isSame(*value, json)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    JSONNotes notes;
    const auto value = jsonObjectFromData({data, size}, &notes);
    if (jsonObjectFromData({data, size}).has_value() != value.has_value()) std::abort();
    compareWithOthers({reinterpret_cast<const char*>(data), size}, value);
    if (!value) return 0;
    for (const JSONForm form : {JSONForm::Compact, JSONForm::PrettyPrinted}) {
        const auto first = dataFromJSONObject(*value, form);
        if (!first) std::abort();
        if (first->size() > kJSONMaximumSize) continue;
        const auto again = jsonObjectFromData(*first);
        if (!again) std::abort();
        // Reals without a fraction have come back as integers, minus zero as zero; that is all.
        const auto second = dataFromJSONObject(*again, form);
        const auto third = jsonObjectFromData(*second);
        if (!third || !(*third == *again)) std::abort();
    }
    return 0;
}
