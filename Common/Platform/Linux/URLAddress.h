#pragma once

#include <string>
#include <string_view>

#include "Common/Foundation/Result.h"

namespace utilia::platform {

// An address that can be loaded from.
struct URLAddress {
    enum class Kind { Web, File };
    Kind kind = Kind::Web;
    // Of the web: the address in ASCII; of a file: its path.
    std::string text;
};

// Reads an address of http, https or file. Bytes that are not ASCII become percent escapes, in the
// host's name its ASCII form. Errors are of kURLErrorDomain: BadURL for an empty text, for blanks
// and control characters, text that is not UTF-8, an address without host, or of a file on another
// host; UnsupportedURL for other schemes and for none.
Result<URLAddress> parseURLAddress(std::string_view url);

}  // namespace utilia::platform
