#include "Common/Foundation/Description.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Tests/Support/TestVectors.h"

using namespace utilia;

TEST(Description, OfAnArrayFollowsTheVectors) {
    for (const auto& vector : test::testVectors("array-description")) {
        const auto array = vector.at("input").at("array").get<std::vector<std::string>>();
        EXPECT_EQ(descriptionOfArray(array), vector.at("expected").get<std::string>());
    }
}

TEST(Description, OfAnEmptyArrayIsTwoLines) { EXPECT_EQ(descriptionOfArray({}), "(\n)"); }

TEST(Description, EscapesInQuotes) {
    const std::vector<std::string> array{"a\"b\\c", "\u00e9\U0001F600", "a\n\t\r\x01"};
    EXPECT_EQ(descriptionOfArray(array), "(\n    \"a\\\"b\\\\c\",\n    \"\\U00e9\\Ud83d\\Ude00\",\n"
                                         "    \"a\\n\\t\\r\\001\"\n)");
}
