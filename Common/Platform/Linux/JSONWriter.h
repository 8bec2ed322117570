#pragma once

#include <string>

#include "Common/Foundation/Result.h"
#include "Common/Foundation/Value.h"
#include "Common/Platform/JSONSerialization.h"

namespace utilia::platform {

// One value as JSON text (JSONSerialization.h says in what form). An object is for one text.
class JSONWriter final {
public:
    explicit JSONWriter(JSONForm form) : isPretty_(form == JSONForm::PrettyPrinted) {}

    Result<std::string> write(const Value& value);

private:
    // Null when the value is written, else what JSON cannot say.
    const char* put(const Value& value, std::size_t depth);
    const char* putArray(const Array& array, std::size_t depth);
    const char* putDictionary(const Dictionary& dictionary, std::size_t depth);
    const char* putReal(double number);
    const char* putString(const std::string& string);
    void startLine(std::size_t depth);

    bool isPretty_;
    std::string text_;
};

}  // namespace utilia::platform
