#include "Common/Platform/StringComparison.h"

#include <string>

#include <gtest/gtest.h>

#include "Tests/Support/TestVectors.h"

namespace utilia::platform {
namespace {

TEST(StringComparison, FollowsTheVectors) {
    for (const auto& vector : test::testVectors("case-insensitive-compare")) {
        SCOPED_TRACE(vector.dump());
        const auto& input = vector.at("input");
        EXPECT_EQ(isCaseInsensitiveEqual(input.at("a").get<std::string>(),
                                         input.at("b").get<std::string>()),
                  vector.at("expected").get<int>() == 0);
    }
}

TEST(StringComparison, TextThatIsNotUtf8ComparesByAsciiLetters) {
    EXPECT_TRUE(isCaseInsensitiveEqual("A\xff", "a\xff"));
    EXPECT_FALSE(isCaseInsensitiveEqual("A\xff", "a\xfe"));
    EXPECT_TRUE(isCaseInsensitiveEqual(std::string("\u00e9\0A", 4), std::string("\u00e9\0a", 4)));
    EXPECT_FALSE(isCaseInsensitiveEqual("", "a"));
    EXPECT_TRUE(isCaseInsensitiveEqual("", ""));
}

}  // namespace
}  // namespace utilia::platform
