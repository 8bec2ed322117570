#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace utilia::test {

// Files that were made to hurt whoever opens them: small, and with a promise of much.

using FileBytes = std::vector<std::uint8_t>;

// Made when it is asked for: some take a while.
struct HostileFile {
    HostileFile(std::string fileName, FileBytes content)
        : name(std::move(fileName)), bytes([made = std::move(content)] { return made; }) {}
    HostileFile(std::string fileName, std::function<FileBytes()> make)
        : name(std::move(fileName)), bytes(std::move(make)) {}

    std::string name;
    std::function<FileBytes()> bytes;
};

void PrintTo(const HostileFile& file, std::ostream* out);

// None of them is an image.
std::vector<HostileFile> hostilePngs();
std::vector<HostileFile> hostileJpegs();
std::vector<HostileFile> hostileGifs();
std::vector<HostileFile> hostileBmps();
std::vector<HostileFile> hostileJpeg2000s();
std::vector<HostileFile> hostileTiffs();
// They may be images, small ones.
std::vector<HostileFile> oddFiles();

}  // namespace utilia::test
