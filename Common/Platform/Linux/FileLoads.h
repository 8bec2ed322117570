#pragma once

#include <cstddef>
#include <string>

#include "Common/Platform/URLSession.h"

namespace utilia::platform {

// Files that are read for whoever must not wait for a disk: one after the other, on a thread that is
// there while there is something to read. Regular files only, of a size up to the limit.
//
// `done` is called exactly once, on that thread, or inside the call when no thread can be had.
// Errors are of kURLErrorDomain. May throw std::bad_alloc, without having called `done`.
//
// Threads: any.
void loadFile(const std::string& path, std::size_t maximumSize, URLTransport::Done done);

}  // namespace utilia::platform
