#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "Common/Platform/PropertyListSerialization.h"
#include "Tests/Support/Places.h"

namespace utilia::platform {
namespace {

Data bytesOf(const std::string& text) { return Data(text.begin(), text.end()); }

std::string hexOf(const Data& bytes) {
    std::string text;
    for (const std::uint8_t byte : bytes) {
        constexpr char kDigits[] = "0123456789abcdef";
        text += {kDigits[byte >> 4], kDigits[byte & 15]};
    }
    return text;
}

Data bytesFromHex(const std::string& hex) {
    Data bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

nlohmann::json vectors() {
    std::ifstream file(std::string(test::places::kTestData) + "/plist.json");
    return nlohmann::json::parse(file).at("vectors");
}

TEST(PropertyListVectors, TheXmlFormOfEachIsWrittenByteForByte) {
    const auto all = vectors();
    ASSERT_GT(all.size(), 20u);
    for (const auto& vector : all) {
        SCOPED_TRACE(vector.at("id").get<std::string>());
        const auto value = propertyListFromData(bytesOf(vector.at("input").at("xml")));
        ASSERT_TRUE(value) << value.error().description;
        const auto xml = dataFromPropertyList(*value, PropertyListFormat::Xml);
        ASSERT_TRUE(xml) << xml.error().description;
        EXPECT_EQ(std::string(xml->begin(), xml->end()),
                  vector.at("expected").at("xml").get<std::string>());
    }
}

TEST(PropertyListVectors, TheBinaryFormOfEachIsWrittenByteForByte) {
    for (const auto& vector : vectors()) {
        SCOPED_TRACE(vector.at("id").get<std::string>());
        const auto value = propertyListFromData(bytesOf(vector.at("input").at("xml")));
        ASSERT_TRUE(value) << value.error().description;
        const auto binary = dataFromPropertyList(*value, PropertyListFormat::Binary);
        ASSERT_TRUE(binary) << binary.error().description;
        EXPECT_EQ(hexOf(*binary), vector.at("expected").at("binary_hex").get<std::string>());
    }
}

TEST(PropertyListVectors, BothFormsOfEachReadAsTheSameValue) {
    for (const auto& vector : vectors()) {
        SCOPED_TRACE(vector.at("id").get<std::string>());
        const auto input = propertyListFromData(bytesOf(vector.at("input").at("xml")));
        const auto xml = propertyListFromData(bytesOf(vector.at("expected").at("xml")));
        const auto binary =
            propertyListFromData(bytesFromHex(vector.at("expected").at("binary_hex")));
        ASSERT_TRUE(input && xml && binary);
        EXPECT_TRUE(*xml == *input);
        EXPECT_TRUE(*binary == *input);
    }
}

// Documentation/Formats/Preferences.md explains these bytes.
TEST(PropertyListVectors, TheDocumentedExampleIsWhatIsWritten) {
    const Value value = Dictionary{{"Scheduler", Array{Dictionary{{"bundleid", "com.example.tool"},
                                                                  {"launchAtDate", true},
                                                                  {"interval", 0.5}}}}};
    const auto binary = dataFromPropertyList(value, PropertyListFormat::Binary);
    ASSERT_TRUE(binary);
    EXPECT_EQ(hexOf(*binary), "62706c6973743030d101025953636865"
                              "64756c6572a103d30405060708095862"
                              "756e646c6569645c6c61756e63684174"
                              "4461746558696e74657276616c5f1010"
                              "636f6d2e6578616d706c652e746f6f6c"
                              "09233fe0000000000000080b15171e27"
                              "343d5051000000000000010100000000"
                              "0000000a000000000000000000000000"
                              "0000005a");
}

}  // namespace
}  // namespace utilia::platform
