#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/TemporaryHome.h"

namespace utilia::test {

// A copy of this test program beside a framework bundle of one's own, which at first does not exist.
class CopyOfThisProgram final {
public:
    CopyOfThisProgram() {
        std::filesystem::create_directories(program().parent_path());
        std::filesystem::copy_file(ownProgramPath(), program());
    }
    std::filesystem::path folder() const { return folder_.path(); }
    // Makes the framework's folder of modules.
    std::filesystem::path modules() const {
        auto modules = folder() / "lib" / "UtiliaCommon.framework" / "Modules";
        std::filesystem::create_directories(modules);
        return modules;
    }
    // Puts a file in the place of a module: "Icons".
    void useModule(const std::string& name, const std::filesystem::path& file) const {
        std::filesystem::copy_file(file, modules() / (name + ".so"));
    }
    void useBrokenModule(const std::string& name) const {
        std::ofstream(modules() / (name + ".so")) << "this is no library";
    }
    ChildProcess role(const std::string& name, std::vector<std::string> arguments) const {
        ChildProcess::Options options;
        options.program = program().string();
        return ChildProcess::role(name, std::move(arguments), options);
    }

private:
    std::filesystem::path program() const { return folder() / "bin" / "program"; }

    TemporaryFolder folder_;
};

}  // namespace utilia::test
