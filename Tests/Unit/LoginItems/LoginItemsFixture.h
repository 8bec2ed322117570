#pragma once

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "Common/Platform/LoginItems.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestBundle.h"

namespace utilia::platform {

inline std::string contentOf(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

inline void writeFile(const std::filesystem::path& path, const std::string& content) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream file(path, std::ios::binary);
    file << content;
}

// As people and other programs write them.
inline std::string foreignEntry(const test::TestBundle& bundle, const std::string& first = "") {
    return "# mine\n\n[Desktop Entry]\n" + first +
           "Version=1.0\nType = Application\nName=x\nName[de]=y\n\n # why\nExec=\"" +
           bundle.program() + "\" --quiet\nX-Own=a;b;\n\n[Desktop Action A]\nHidden=true\n\n";
}

class LoginItemsTest : public testing::Test {
protected:
    test::TestBundle bundle(const std::string& folder, const std::string& name,
                            const std::string& identifier) {
        test::TestBundleOptions options;
        options.name = name;
        options.folder = home_.path() / folder;
        options.bundleIdentifier = identifier;
        return test::TestBundle(home_, options);
    }
    static std::string entryOf(const test::TestBundle& bundle, const std::string& more = "") {
        return "[Desktop Entry]\nType=Application\nName=x\nExec=\"" + bundle.program() + "\"\n" +
               more;
    }
    static std::vector<LoginItem> items() {
        const auto list = LoginItems::create();
        auto snapshot = list ? list->snapshot() : list.error();
        EXPECT_TRUE(snapshot) << (snapshot ? "" : snapshot.error().description);
        return snapshot ? *std::move(snapshot) : std::vector<LoginItem>();
    }
    static std::vector<std::string> files() {
        std::vector<std::string> names;
        for (const LoginItem& item : items())
            names.push_back(std::filesystem::path(item.path()).filename());
        return names;
    }
    static std::vector<std::string> urls() {
        std::vector<std::string> all;
        for (const LoginItem& item : items()) all.push_back(item.resolvedURL().value_or("(none)"));
        return all;
    }
    static Result<LoginItem> add(const test::TestBundle& bundle) {
        return LoginItems::create()->insertAtEnd(bundle.path());
    }
    static void removeOnly() {
        const auto all = items();
        ASSERT_EQ(all.size(), 1u);
        const auto removed = LoginItems::create()->remove(all[0]);
        EXPECT_TRUE(removed) << removed.error().description;
    }
    std::vector<std::string> namesInFolder() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(user_))
            names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }

    test::TemporaryHome home_;
    std::filesystem::path user_ = home_.config() / "autostart";
    std::filesystem::path system_ = home_.systemConfig() / "autostart";
    test::TestBundle app_ = bundle("Applications", "Sample Tool", "com.example.Sample");
    std::string ownFile_ = "com.example.Sample.desktop";
};

}  // namespace utilia::platform
