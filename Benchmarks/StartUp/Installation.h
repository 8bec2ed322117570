#pragma once

#include <filesystem>
#include <string>

namespace utilia::bench {

// Copies of the library and of programs beside this one, as an installation would lay them down. A
// linker writes its file in many small pieces, and the memory that the system keeps it in is as
// scattered; a start from there takes a tenth of a millisecond longer than one from a copy.
class Installation final {
public:
    explicit Installation(std::filesystem::path prefix);

    // PREFIX/bin/NAME.
    std::filesystem::path addProgram(const std::string& name) const;
    // PREFIX/Applications/NAME.app with the program in it; answers the program's path.
    std::filesystem::path addApplication(const std::string& name,
                                         const std::string& identifier) const;

private:
    std::filesystem::path prefix_;
};

}  // namespace utilia::bench
