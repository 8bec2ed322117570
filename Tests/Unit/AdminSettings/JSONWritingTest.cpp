#include <fstream>
#include <limits>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Common/Platform/JSONSerialization.h"
#include "Tests/Support/Places.h"

namespace utilia::platform {
namespace {

using Json = nlohmann::ordered_json;

Value valueFrom(const Json& json) {
    switch (json.type()) {
    case Json::value_t::boolean:
        return json.get<bool>();
    case Json::value_t::number_integer:
        return json.get<std::int64_t>();
    case Json::value_t::number_unsigned:
        return json.get<std::uint64_t>();
    case Json::value_t::number_float:
        return json.get<double>();
    case Json::value_t::string:
        return json.get<std::string>();
    case Json::value_t::array: {
        Array array;
        for (const Json& each : json) array.append(valueFrom(each));
        return array;
    }
    case Json::value_t::object: {
        Dictionary dictionary;
        for (const auto& [key, each] : json.items()) dictionary.set(key, valueFrom(each));
        return dictionary;
    }
    default:
        return nullptr;
    }
}

std::string write(const Value& value, JSONForm form = JSONForm::Compact) {
    const auto data = dataFromJSONObject(value, form);
    EXPECT_TRUE(data) << data.error().description;
    return data ? std::string(data->begin(), data->end()) : "";
}

std::string refusal(const Value& value) {
    const auto data = dataFromJSONObject(value, JSONForm::PrettyPrinted);
    EXPECT_FALSE(data);
    if (data) return "written";
    EXPECT_EQ(data.error().domain, kCocoaErrorDomain);
    EXPECT_EQ(data.error().code, static_cast<int>(CocoaErrorCode::PropertyListWriteInvalid));
    return data.error().description;
}

TEST(JSONWriting, FollowsTheVectorsByteForByte) {
    std::ifstream file(std::string(test::places::kTestData) + "/json-pretty.json");
    const Json vectors = Json::parse(file).at("vectors");
    ASSERT_GT(vectors.size(), 40u);
    for (const Json& vector : vectors) {
        SCOPED_TRACE(vector.at("id").get<std::string>());
        const Json& input = vector.at("input");
        EXPECT_EQ(write(valueFrom(input.at("value")), input.at("pretty").get<bool>()
                                                          ? JSONForm::PrettyPrinted
                                                          : JSONForm::Compact),
                  vector.at("expected").get<std::string>());
    }
}

TEST(JSONWriting, WritesBooleansForBooleansOnly) {
    EXPECT_EQ(write(Array{true, false, 1, 0, 1.0, 0.0, nullptr}), "[true,false,1,0,1,0,null]");
}

TEST(JSONWriting, WritesTheShortestNumberThatReadsBack) {
    EXPECT_EQ(write(Array{0.1, 1.0 / 3, 5e-324, 1.7976931348623157e308}),
              "[0.1,0.3333333333333333,5e-324,1.7976931348623157e+308]");
    EXPECT_EQ(write(Array{100000.0, 1e15, 18014398509481982.0, 18014398509481984.0, 1e22}),
              "[100000,1000000000000000,18014398509481982,1.8014398509481984e+16,1e+22]");
    EXPECT_EQ(write(Array{0.0001, 0.00001, -0.0}), "[0.0001,1e-05,-0]");
    EXPECT_EQ(write(Array{INT64_MIN, INT64_MAX, UINT64_MAX}),
              "[-9223372036854775808,9223372036854775807,18446744073709551615]");
}

TEST(JSONWriting, EscapesWhatMustBeAndNothingElse) {
    EXPECT_EQ(write(Dictionary{{"a/b\"", "\\/\b\f\n\r\t\x01\x1f\x7f é😀"}}),
              "{\"a\\/b\\\"\":\"\\\\\\/\\b\\f\\n\\r\\t\\u0001\\u001f\x7f é😀\"}");
}

TEST(JSONWriting, RefusesWhatJsonCannotSay) {
    const std::string prefix = "JSON cannot say: ";
    EXPECT_EQ(refusal("text"), prefix + "neither an array nor a dictionary at the top");
    EXPECT_EQ(refusal(nullptr), prefix + "neither an array nor a dictionary at the top");
    EXPECT_EQ(refusal(Array{Data{1}}), prefix + "data");
    EXPECT_EQ(refusal(Dictionary{{"a", Date{}}}), prefix + "a date");
    for (const double number :
         {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
          -std::numeric_limits<double>::infinity()}) {
        EXPECT_EQ(refusal(Array{number}), prefix + "infinity and not-a-number");
    }
    EXPECT_EQ(refusal(Array{"\xff"}), prefix + "text that is not UTF-8");
    EXPECT_EQ(refusal(Dictionary{{"\xff", 1}}), prefix + "text that is not UTF-8");
}

Value nested(std::size_t depth) {
    Value value = Array();
    for (std::size_t i = 1; i < depth; ++i) value = Value(Array{value});
    return value;
}

TEST(JSONWriting, RefusesNestingBeyondWhatIsRead) {
    EXPECT_EQ(write(nested(kJSONMaximumDepth)).size(), 2 * kJSONMaximumDepth);
    EXPECT_EQ(refusal(nested(kJSONMaximumDepth + 1)),
              "JSON cannot say: arrays and dictionaries nested too deep");
}

TEST(JSONWriting, WhatIsWrittenReadsBackTheSame) {
    const Value value = Dictionary{
        {"WhiteToolsList", Array{"Timer", "", std::string("a\0b", 3)}},
        {"UpdatesDisabled", true},
        {"", nullptr},
        {"numbers", Array{0, -1, 0.5, UINT64_MAX, 1e300}},
        {"empty", Dictionary{{"array", Array()}, {"object", Dictionary()}}},
    };
    for (const JSONForm form : {JSONForm::Compact, JSONForm::PrettyPrinted}) {
        const auto again = jsonObjectFromData(*dataFromJSONObject(value, form));
        ASSERT_TRUE(again);
        EXPECT_EQ(*again, value);
    }
}

}  // namespace
}  // namespace utilia::platform
