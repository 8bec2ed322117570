#include "Common/Foundation/IndexPath.h"

#include <gtest/gtest.h>

#include "Tests/Support/TestVectors.h"

using namespace utilia;
using utilia::test::testVectors;

namespace {

IndexPath pathOf(const nlohmann::json& indexes) {
    return IndexPath(indexes.get<std::vector<std::uint64_t>>());
}

}  // namespace

TEST(IndexPath, MatchesThePublishedVectors) {
    std::size_t compared = 0;
    std::size_t indexed = 0;
    for (const auto& vector : testVectors("version-order")) {
        SCOPED_TRACE(vector.at("id").get<std::string>());
        const auto& input = vector.at("input");
        if (input.at("op") == "compare") {
            const auto result = pathOf(input.at("a")).compare(pathOf(input.at("b")));
            EXPECT_EQ(static_cast<int>(result), vector.at("expected").get<int>());
            ++compared;
        } else if (input.at("op") == "indexAtPosition") {
            const std::uint64_t index =
                pathOf(input.at("components")).indexAtPosition(input.at("position"));
            EXPECT_EQ(std::to_string(index), vector.at("expected").get<std::string>());
            ++indexed;
        }
    }
    EXPECT_GT(compared, 0u);
    EXPECT_GT(indexed, 0u);
}

TEST(IndexPath, ComparesWithoutSigns) {
    EXPECT_LT(IndexPath{kNotFound}, IndexPath{kNotFound + 1});
    EXPECT_LT(IndexPath{1}, IndexPath{UINT64_MAX});
}

TEST(IndexPath, GrowsAtItsEnd) {
    IndexPath path{5, 1};
    path.addIndex(2);
    EXPECT_EQ(path, (IndexPath{5, 1, 2}));
    EXPECT_EQ(path.length(), 3u);
}

TEST(IndexPath, DescribesItselfWithItsAddress) {
    const IndexPath path{5, 1, 2, UINT64_MAX};
    char address[32];
    std::snprintf(address, sizeof address, "%p", static_cast<const void*>(&path));
    EXPECT_EQ(path.description(), "<NSIndexPath: " + std::string(address) +
                                      "> {length = 4, path = 5 - 1 - 2 - 18446744073709551615}");
    EXPECT_THAT(IndexPath().description(), testing::EndsWith("> {length = 0, path = }"));
}
