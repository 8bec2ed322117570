#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace utilia::test {

// Puts this test binary at a path: as a hard link, or as a copy on another file system. Makes the
// folders.
void placeTestProgram(const std::filesystem::path& path);
// Makes the folders too.
void writeFile(const std::filesystem::path& path, std::string_view content);
// The text of an XML property list whose top dictionary has these entries.
std::string infoPlistText(const std::string& entries);

}  // namespace utilia::test
