#include "Tests/Unit/Applications/TestFiles.h"

#include <fstream>
#include <stdexcept>
#include <system_error>

#include "Tests/Support/ChildProcess.h"

namespace utilia::test {

namespace fs = std::filesystem;

void writeFile(const fs::path& path, std::string_view content) {
    fs::create_directories(path.parent_path());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    if (!file.flush()) throw std::runtime_error("write " + path.string());
}

std::string infoPlistText(const std::string& entries) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
           "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
           "<plist version=\"1.0\">\n<dict>\n" +
           entries + "\n</dict>\n</plist>\n";
}

void placeTestProgram(const fs::path& path) {
    fs::create_directories(path.parent_path());
    std::error_code failed;
    fs::create_hard_link(ownProgramPath(), path, failed);
    if (failed) fs::copy_file(ownProgramPath(), path);
}

}  // namespace utilia::test
