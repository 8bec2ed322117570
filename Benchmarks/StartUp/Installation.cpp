#include "Benchmarks/StartUp/Installation.h"

#include <fstream>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "Benchmarks/Support/Measure.h"

namespace utilia::bench {
namespace {

namespace fs = std::filesystem;

// On the disk when it returns: what waits to be written counts as memory of whoever maps it.
void copySynced(const fs::path& from, const fs::path& to) {
    fs::create_directories(to.parent_path());
    fs::copy_file(from, to);
    const int file = check(open(to.c_str(), O_RDONLY | O_CLOEXEC), "open");
    check(fsync(file), "fsync");
    close(file);
}

void copyProgram(const std::string& name, const fs::path& to) {
    copySynced(fs::read_symlink("/proc/self/exe").parent_path() / name, to);
}

}  // namespace

Installation::Installation(fs::path prefix) : prefix_(std::move(prefix)) {
    copySynced(fs::canonical(UTILIA_LIBRARY), prefix_ / "lib" / UTILIA_LIBRARY_SONAME);
}

fs::path Installation::addProgram(const std::string& name) const {
    const fs::path program = prefix_ / "bin" / name;
    copyProgram(name, program);
    return program;
}

fs::path Installation::addApplication(const std::string& name,
                                      const std::string& identifier) const {
    const fs::path contents = prefix_ / "Applications" / (name + ".app") / "Contents";
    copyProgram(name, contents / "Linux" / name);
    std::ofstream(contents / "Info.plist")
        << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>\n"
        << "<key>CFBundleIdentifier</key><string>" << identifier << "</string>\n"
        << "<key>CFBundleExecutable</key><string>" << name << "</string>\n</dict></plist>\n";
    return contents / "Linux" / name;
}

}  // namespace utilia::bench
