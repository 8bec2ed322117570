#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Common/Foundation/Export.h"

// Paths as text, by the rules of the original platform's string class. Runs of "/" count as one and a trailing
// "/" is dropped, except that "/" itself stays; "." and ".." are ordinary components; no file is touched.
// Both ends of a conversation must form the same path text character for character, hence not std::filesystem.

namespace utilia {

// "/a/b/" -> "b"; "" -> ""; "//" -> "/".
UTILIA_EXPORT std::string lastPathComponent(std::string_view path);
// "/a/b/" -> "/a"; "a" -> ""; "/" -> "/".
UTILIA_EXPORT std::string stringByDeletingLastPathComponent(std::string_view path);
// "/tmp/" + "x" -> "/tmp/x"; "" + "x" -> "x".
UTILIA_EXPORT std::string stringByAppendingPathComponent(std::string_view path, std::string_view component);
// "abc.xyz" -> "xyz"; ".xyz" and "abc." -> "".
UTILIA_EXPORT std::string pathExtension(std::string_view path);
// "scratch..tiff" -> "scratch."; ".tiff" -> ".tiff".
UTILIA_EXPORT std::string stringByDeletingPathExtension(std::string_view path);
// "/tmp/" + "tiff" -> "/tmp.tiff"; empty (nil) for "" and "/", and for an extension that begins with "/".
UTILIA_EXPORT std::optional<std::string> stringByAppendingPathExtension(std::string_view path, std::string_view extension);

}  // namespace utilia
