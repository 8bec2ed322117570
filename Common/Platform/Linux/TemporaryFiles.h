#pragma once

#include <string>

namespace utilia::platform {

// Names for files that are made aside and then put where they belong.

// Beside the target, unlike every other name of this process and of the others that live now.
std::string temporaryName(const std::string& target);

// The folder that a path lies in.
std::string folderOf(const std::string& path);

// Removes files of such names from a folder, if this user's processes made them and those are gone.
//
// A writer that is killed between giving its file a name and renaming it can no longer clear up;
// the next one does. Whatever fails here costs nothing but a file that stays for another time, and
// a huge folder is not searched to its end.
void removeLeftOvers(const std::string& folder);

}  // namespace utilia::platform
