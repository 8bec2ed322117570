#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "Common/Platform/Image.h"

namespace utilia::test {

struct NamedFileType {
    const char* name;  // also the extension
    platform::BitmapImageFileType type;
};
const std::vector<NamedFileType>& allFileTypes();

// Every pixel differs from those around it, in colour and in alpha.
platform::BitmapImageRep noise(std::uint32_t wide, std::uint32_t high);
// The same without transparency.
platform::BitmapImageRep opaqueNoise(std::uint32_t wide, std::uint32_t high);
// Smooth and opaque, as photographs are.
platform::BitmapImageRep gradient(std::uint32_t wide, std::uint32_t high);
// Of few colours, some of them fully transparent.
platform::BitmapImageRep flag(std::uint32_t wide, std::uint32_t high);

Data encoded(const platform::BitmapImageRep& bitmap, platform::BitmapImageFileType type);
// The pixels of the only representation; an empty bitmap, and a failure of the test, for no image.
platform::BitmapImageRep decoded(const Data& bytes);

// The largest difference of two samples, 256 for pictures of different sides.
int largestDifference(const platform::BitmapImageRep& one, const platform::BitmapImageRep& other);
double meanDifference(const platform::BitmapImageRep& one, const platform::BitmapImageRep& other);

void writeFile(const std::filesystem::path& path, const Data& bytes);
Data readFile(const std::filesystem::path& path);

// Runs a program with its output in `folder`/out and expects it to be content, without a word on
// standard error. Answers the output.
std::string outputOf(const std::string& program, const std::vector<std::string>& arguments);

}  // namespace utilia::test
