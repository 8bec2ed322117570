#include "Tests/Support/TestBundle.h"

#include <fstream>
#include <stdexcept>
#include <system_error>

namespace utilia::test {
namespace {

namespace fs = std::filesystem;

// Written by hand, so that the bundle of a test does not depend on the writer under test.
std::string escaped(const std::string& text) {
    std::string result;
    for (const char c : text) {
        switch (c) {
        case '&':
            result += "&amp;";
            break;
        case '<':
            result += "&lt;";
            break;
        case '>':
            result += "&gt;";
            break;
        default:
            result += c;
        }
    }
    return result;
}

std::string xml(const Value& value) {
    if (const auto* text = value.string()) return "<string>" + escaped(*text) + "</string>";
    if (const auto* flag = value.boolean()) return *flag ? "<true/>" : "<false/>";
    if (const auto* number = value.integer())
        return "<integer>" + std::to_string(*number) + "</integer>";
    if (const auto* array = value.array()) {
        std::string result = "<array>";
        for (const Value& element : *array) result += xml(element);
        return result + "</array>";
    }
    if (const auto* dictionary = value.dictionary()) {
        std::string result = "<dict>";
        for (const auto& [key, element] : *dictionary)
            result += "<key>" + escaped(key) + "</key>" + xml(element);
        return result + "</dict>";
    }
    throw std::runtime_error("an Info.plist of a test holds text, numbers and containers only");
}

void writeFile(const fs::path& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary);
    file << text;
    file.close();
    if (!file) throw std::runtime_error("write " + path.string());
}

Dictionary infoDictionary(const TestBundleOptions& options) {
    Dictionary info{{"CFBundleName", options.name}, {"CFBundleExecutable", options.program}};
    if (!options.bundleIdentifier.empty()) info.set("CFBundleIdentifier", options.bundleIdentifier);
    if (options.canonicalName)
        info.set("ToolCapabilities", Dictionary{{"CanonicalName", *options.canonicalName}});
    for (const auto& [key, value] : options.info) info.set(key, value);
    return info;
}

// One argument of a desktop entry's Exec line.
std::string quoted(const std::string& argument) {
    std::string result = "\"";
    for (const char c : argument) {
        // Once for the quotes, and the backslash once more for the file's own escapes.
        if (c == '\\') {
            result += "\\\\\\\\";
        } else if (c == '"' || c == '`' || c == '$') {
            result += std::string("\\\\") + c;
        } else if (c == '%') {
            result += "%%";
        } else {
            result += c;
        }
    }
    return result + "\"";
}

}  // namespace

TestBundle::TestBundle(const TemporaryHome& home, Options options)
    : home_(home), options_(std::move(options)) {
    const fs::path folder =
        options_.folder.empty() ? home.path() / "Applications" : options_.folder;
    fs::create_directories(folder);
    path_ = fs::canonical(folder) / (options_.name + ".app");
    fs::create_directories(path_ / "Contents/Linux");
    const fs::path binary = ownProgramPath();
    std::error_code failed;
    fs::create_hard_link(options_.copy.empty() ? binary : fs::path(options_.copy), program(),
                         failed);
    if (failed) fs::copy_file(binary, program());
    fs::create_directory_symlink(fs::weakly_canonical(binary.parent_path() / "../lib"),
                                 path_ / "Contents/lib");
    writeFile(path_ / "Contents/Info.plist",
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
              "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
              "<plist version=\"1.0\">" +
                  xml(infoDictionary(options_)) + "</plist>\n");
}

ChildProcess TestBundle::role(const std::string& name, std::vector<std::string> arguments,
                              ChildProcessOptions options) const {
    options.program = program();
    return ChildProcess::role(name, std::move(arguments), std::move(options));
}

void TestBundle::install(const std::string& role, const std::vector<std::string>& arguments) const {
    const fs::path folder = home_.data() / "applications";
    fs::create_directories(folder);
    std::string exec = quoted(program()) + " " + quoted(kChildRoleSwitch) + " " + quoted(role);
    for (const std::string& argument : arguments) exec += " " + quoted(argument);
    writeFile(folder / (options_.bundleIdentifier + ".desktop"),
              "[Desktop Entry]\nType=Application\nName=" + options_.name + "\nExec=" + exec + "\n");
}

}  // namespace utilia::test
