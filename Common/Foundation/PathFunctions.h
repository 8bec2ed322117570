#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Common/Foundation/Export.h"

// Taking paths apart and putting them together, as the original platform's strings do it. Agent and
// tools hash the text of a path, so both must arrive at equal text, and std::filesystem has rules
// of its own.
//
// Only the text is looked at, never the file system. Several slashes in a row are as good as one,
// those at the end go away (the root keeps its own), and a component "." or ".." has no special
// meaning.
//
// Threads: any.

namespace utilia {

// "/a/b/" -> "b"; "" -> ""; "//" -> "/".
UTILIA_EXPORT std::string lastPathComponent(std::string_view path);
// "/a/b/" -> "/a"; "a" -> ""; "/" -> "/".
UTILIA_EXPORT std::string stringByDeletingLastPathComponent(std::string_view path);
// "/tmp/" + "x" -> "/tmp/x"; "" + "x" -> "x".
UTILIA_EXPORT std::string stringByAppendingPathComponent(std::string_view path,
                                                         std::string_view component);
// "abc.xyz" -> "xyz"; ".xyz" and "abc." -> "".
UTILIA_EXPORT std::string pathExtension(std::string_view path);
// "scratch..tiff" -> "scratch."; ".tiff" -> ".tiff".
UTILIA_EXPORT std::string stringByDeletingPathExtension(std::string_view path);
// "/tmp/" + "tiff" -> "/tmp.tiff"; empty (nil) for "" and "/", and for an extension that begins
// with "/".
UTILIA_EXPORT std::optional<std::string> stringByAppendingPathExtension(std::string_view path,
                                                                        std::string_view extension);

}  // namespace utilia
