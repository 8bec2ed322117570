#include "Common/Foundation/PathFunctions.h"

#include <gtest/gtest.h>

#include "Tests/Support/TestVectors.h"

using namespace utilia;
using utilia::test::testVectors;

namespace {

std::optional<std::string> call(const std::string& function,
                                const std::vector<std::string>& arguments) {
    if (function == "lastPathComponent") return lastPathComponent(arguments.at(0));
    if (function == "stringByDeletingLastPathComponent")
        return stringByDeletingLastPathComponent(arguments.at(0));
    if (function == "stringByAppendingPathComponent") {
        return stringByAppendingPathComponent(arguments.at(0), arguments.at(1));
    }
    if (function == "pathExtension") return pathExtension(arguments.at(0));
    if (function == "stringByDeletingPathExtension")
        return stringByDeletingPathExtension(arguments.at(0));
    if (function == "stringByAppendingPathExtension") {
        return stringByAppendingPathExtension(arguments.at(0), arguments.at(1));
    }
    throw std::runtime_error("no such function: " + function);
}

}  // namespace

TEST(PathFunctions, MatchThePublishedVectors) {
    for (const auto& vector : testVectors("path-functions")) {
        SCOPED_TRACE(vector.at("id").get<std::string>());
        const auto& input = vector.at("input");
        const auto answer = call(input.at("op"), input.at("args"));
        const auto& expected = vector.at("expected");
        EXPECT_EQ(answer,
                  expected.is_null() ? std::nullopt : std::optional(expected.get<std::string>()))
            << input;
    }
}

TEST(PathFunctions, TakeTheLastComponent) {
    EXPECT_EQ(lastPathComponent("///"), "/");
    EXPECT_EQ(lastPathComponent("/a/."), ".");
    EXPECT_EQ(lastPathComponent("a/.."), "..");
    EXPECT_EQ(lastPathComponent("/日本語.app//"), "日本語.app");
    EXPECT_EQ(lastPathComponent(std::string_view("a/b\0c", 5)), std::string_view("b\0c", 3));
}

TEST(PathFunctions, DropTheLastComponent) {
    EXPECT_EQ(stringByDeletingLastPathComponent("//"), "/");
    EXPECT_EQ(stringByDeletingLastPathComponent("//a"), "/");
    EXPECT_EQ(stringByDeletingLastPathComponent("//a//b//c//"), "/a/b");
    EXPECT_EQ(stringByDeletingLastPathComponent("./a"), ".");
    EXPECT_EQ(stringByDeletingLastPathComponent("../.."), "..");
    EXPECT_EQ(stringByDeletingLastPathComponent("a//b//"), "a");
}

TEST(PathFunctions, JoinWithOneSlash) {
    EXPECT_EQ(stringByAppendingPathComponent("", "/x"), "/x");
    EXPECT_EQ(stringByAppendingPathComponent("", "x//"), "x");
    EXPECT_EQ(stringByAppendingPathComponent("", "/"), "/");
    EXPECT_EQ(stringByAppendingPathComponent("/", ""), "/");
    EXPECT_EQ(stringByAppendingPathComponent("///", ""), "/");
    EXPECT_EQ(stringByAppendingPathComponent("/", "/"), "/");
    EXPECT_EQ(stringByAppendingPathComponent("a//", ""), "a");
    EXPECT_EQ(stringByAppendingPathComponent("/", "//x//y//"), "/x/y");
    EXPECT_EQ(stringByAppendingPathComponent("a", ".."), "a/..");
    EXPECT_EQ(stringByAppendingPathComponent("a", "."), "a/.");
}

TEST(PathFunctions, FindTheExtension) {
    EXPECT_EQ(pathExtension(""), "");
    EXPECT_EQ(pathExtension("/"), "");
    EXPECT_EQ(pathExtension(".."), "");
    EXPECT_EQ(pathExtension("..."), "");
    EXPECT_EQ(pathExtension("..a"), "a");
    EXPECT_EQ(pathExtension(".a.b"), "b");
    EXPECT_EQ(pathExtension("x.app//"), "app");
    EXPECT_EQ(pathExtension("/a.b/"), "b");
    EXPECT_EQ(pathExtension("/a.b/."), "");
    EXPECT_EQ(pathExtension("/a.b/.c"), "");
    EXPECT_EQ(pathExtension("a. b"), " b");
}

TEST(PathFunctions, DropTheExtension) {
    EXPECT_EQ(stringByDeletingPathExtension(""), "");
    EXPECT_EQ(stringByDeletingPathExtension("."), ".");
    EXPECT_EQ(stringByDeletingPathExtension("..."), "..");
    EXPECT_EQ(stringByDeletingPathExtension("..a"), ".");
    EXPECT_EQ(stringByDeletingPathExtension("/.."), "/..");
    EXPECT_EQ(stringByDeletingPathExtension("a."), "a");
    EXPECT_EQ(stringByDeletingPathExtension("a/.tiff"), "a/.tiff");
    EXPECT_EQ(stringByDeletingPathExtension("//a//b.c//"), "/a/b");
    EXPECT_EQ(stringByDeletingPathExtension("/.a.b"), "/.a");
}

TEST(PathFunctions, AppendAnExtension) {
    EXPECT_EQ(stringByAppendingPathExtension("a", ""), "a.");
    EXPECT_EQ(stringByAppendingPathExtension(".", "x"), "..x");
    EXPECT_EQ(stringByAppendingPathExtension("a", "b/"), "a.b");
    EXPECT_EQ(stringByAppendingPathExtension("//a//", "b"), "/a.b");
}

TEST(PathFunctions, AppendNoExtensionWhereThereIsNoName) {
    EXPECT_EQ(stringByAppendingPathExtension("", "x"), std::nullopt);
    EXPECT_EQ(stringByAppendingPathExtension("/", "x"), std::nullopt);
    EXPECT_EQ(stringByAppendingPathExtension("///", "x"), std::nullopt);
    EXPECT_EQ(stringByAppendingPathExtension("a", "/x"), std::nullopt);
}

TEST(PathFunctions, HandleVeryLongPathsInLinearTime) {
    const std::string slashes(4'000'000, '/');
    const std::string dots(4'000'000, '.');
    std::string components;
    for (int i = 0; i < 1'000'000; ++i) components += "a.b/";

    EXPECT_EQ(lastPathComponent(slashes), "/");
    EXPECT_EQ(stringByDeletingPathExtension(dots).size(), dots.size() - 1);
    EXPECT_EQ(pathExtension(components), "b");
    EXPECT_EQ(stringByAppendingPathComponent(slashes, components).size(), components.size());
}
