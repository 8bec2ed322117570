#include <chrono>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include "Common/Platform/Image.h"
#include "Common/Platform/UniqueFd.h"
#include "Tests/Support/Places.h"
#include "Tests/Unit/Images/BitmapFixture.h"
#include "Tests/Unit/Utiliactl/ControlProgram.h"

using namespace utilia;
using namespace utilia::platform;
using namespace utilia::test;

namespace {

class ImageCommand : public ControlProgramTest {
protected:
    std::string at(const std::string& name) const { return (home_.path() / name).string(); }
    // A picture to read.
    std::string input(const BitmapImageRep& bitmap = flag(30, 40)) const {
        writeFile(at("input.png"), encoded(bitmap, BitmapImageFileType::Png));
        return at("input.png");
    }
    // One that takes more than a moment for each 1,024 rows, when it becomes JPEG 2000.
    std::string tallInput(std::uint32_t high) const {
        writeFile(at("input.bmp"), encoded(noise(1024, high), BitmapImageFileType::Bmp));
        return at("input.bmp");
    }
    bool hasWritten(const std::string& name) const {
        return std::filesystem::exists(home_.path() / name);
    }
};

TEST_F(ImageCommand, WritesTheFormatThatTheNameTells) {
    const std::vector<std::pair<std::string, BitmapImageFileType>> names = {
        {"a.tiff", BitmapImageFileType::Tiff}, {"a.tif", BitmapImageFileType::Tiff},
        {"a.bmp", BitmapImageFileType::Bmp},   {"a.gif", BitmapImageFileType::Gif},
        {"a.jpeg", BitmapImageFileType::Jpeg}, {"A.JPG", BitmapImageFileType::Jpeg},
        {"a.png", BitmapImageFileType::Png},   {"a.jp2", BitmapImageFileType::Jpeg2000},
    };
    for (const auto& [name, type] : names) {
        EXPECT_EQ(answer({"image", input(), at(name)}), "\"" + at(name) + "\" is written.\n");
        EXPECT_EQ(readFile(at(name)), encoded(flag(30, 40), type)) << name;
    }
}

TEST_F(ImageCommand, WritesTheFormatThatIsAskedFor) {
    for (const NamedFileType& one : allFileTypes()) {
        answer({"image", input(), at("output"), "--type", one.name});
        EXPECT_EQ(readFile(at("output")), encoded(flag(30, 40), one.type)) << one.name;
    }
    answer({"image", input(), at("a.png"), "--type", "bmp"});
    EXPECT_EQ(readFile(at("a.png")), encoded(flag(30, 40), BitmapImageFileType::Bmp));
}

TEST_F(ImageCommand, ReadsEveryFormat) {
    for (const NamedFileType& one : allFileTypes()) {
        const Data bytes = encoded(flag(30, 40), one.type);
        writeFile(at("picture"), bytes);
        answer({"image", at("picture"), at("a.png")});
        EXPECT_EQ(readFile(at("a.png")), encoded(decoded(bytes), BitmapImageFileType::Png))
            << one.name;
    }
}

TEST_F(ImageCommand, WritesPages) {
    const auto pagesOf = [this](const std::vector<std::string>& arguments) {
        std::vector<std::string> all = {"image", input(flag(30, 250))};
        all.insert(all.end(), arguments.begin(), arguments.end());
        answer(all);
        const std::string document = contentOf(arguments[0]);
        EXPECT_TRUE(document.starts_with("%PDF-"));
        const std::string info = outputOf("/usr/bin/pdfinfo", {arguments[0]});
        return info.substr(info.find("Pages:"),
                           info.find('\n', info.find("Pages:")) - info.find("Pages:"));
    };
    EXPECT_EQ(pagesOf({at("a.pdf")}), "Pages:           1");
    EXPECT_EQ(pagesOf({at("a.pdf"), "--page-height", "100"}), "Pages:           3");
    EXPECT_EQ(pagesOf({at("output"), "--page-height", "0"}), "Pages:           1");
    EXPECT_EQ(pagesOf({at("A.PDF"), "--page-height", "250"}), "Pages:           1");
}

TEST_F(ImageCommand, RefusesWrongUsage) {
    const std::vector<std::vector<std::string>> wrong = {
        {"image"},
        {"image", input()},
        {"image", input(), at("a.foo")},
        {"image", input(), at("noname")},
        {"image", input(), ""},
        {"image", "", at("a.png")},
        {"image", input(), at("a.png"), "--type", "pdf"},
        {"image", input(), at("a.png"), "--type", "TIFF"},
        {"image", input(), at("a.png"), "--page-height", "0"},
        {"image", input(), at("a.pdf"), "--page-height", "-1"},
        {"image", input(), at("a.pdf"), "--page-height", "many"},
        {"image", input(), at("a.pdf"), "--page-height", "10", "--type", "png"},
    };
    for (const auto& arguments : wrong) EXPECT_NE(refusal(2, arguments), "");
    EXPECT_EQ(refusal(2, {"image", input(), at("a.foo")}),
              "utiliactl: OUTPUT: \"" + at("a.foo") +
                  "\" tells no format by its name; --type names one\n"
                  "Run \"utiliactl image --help\" for more.\n");
    EXPECT_FALSE(hasWritten("a.png") || hasWritten("a.pdf") || hasWritten("a.foo"));
}

TEST_F(ImageCommand, SaysWhyAnImageCannotBeRead) {
    writeFile(at("text"), {'t', 'e', 'x', 't'});
    Data half = encoded(flag(100, 100), BitmapImageFileType::Png);
    half.resize(half.size() / 2);
    writeFile(at("half.png"), half);
    EXPECT_EQ(refusal(1, {"image", at("missing"), at("a.png")}),
              "utiliactl: open " + at("missing") + ": No such file or directory\n");
    EXPECT_EQ(refusal(1, {"image", at("text"), at("a.png")}),
              "utiliactl: " + at("text") + ": decode image: no format that is known\n");
    EXPECT_EQ(refusal(1, {"image", at("half.png"), at("a.png")}),
              "utiliactl: " + at("half.png") + ": decode image: the file ends too early\n");
    EXPECT_FALSE(hasWritten("a.png"));
}

TEST_F(ImageCommand, SaysWhyAFileCannotBeWritten) {
    EXPECT_EQ(refusal(1, {"image", input(), at("nowhere/a.png")}),
              "utiliactl: open " + at("nowhere/a.png") + ": No such file or directory\n");
    EXPECT_EQ(refusal(1, {"image", input(), at("nowhere/a.pdf")}),
              "utiliactl: open " + at("nowhere/a.pdf") + ": No such file or directory\n");
    EXPECT_EQ(refusal(1, {"image", input(flag(2, 65'501)), at("a.jpg")}),
              "utiliactl: " + at("a.jpg") +
                  ": encode image: JPEG holds at most 65,500 pixels a side\n");
    EXPECT_FALSE(hasWritten("a.jpg"));
}

// The other side of a terminal.
class Terminal final {
public:
    Terminal() : master_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
        if (grantpt(master_.get()) != 0 || unlockpt(master_.get()) != 0) std::abort();
        slave_ = UniqueFd(open(path().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    }
    std::string path() const {
        char name[64] = "";
        return ptsname_r(master_.get(), name, sizeof name) == 0 ? name : "";
    }
    // What is shown until this text has come; with an empty one, what is there by now.
    std::string shownUntil(const std::string& text) {
        while (text.empty() || shown_.find(text) == std::string::npos) {
            pollfd waiting{master_.get(), POLLIN, 0};
            char buffer[4096];
            if (poll(&waiting, 1, text.empty() ? 0 : 120'000) != 1) break;
            const ssize_t count = read(master_.get(), buffer, sizeof buffer);
            if (count <= 0) break;
            shown_.append(buffer, static_cast<std::size_t>(count));
        }
        return shown_;
    }

private:
    UniqueFd master_;
    UniqueFd slave_;  // keeps what was shown when the program has ended
    std::string shown_;
};

TEST_F(ImageCommand, ShowsProgressOnATerminalAndTakesItAway) {
    Terminal terminal;
    ChildProcessOptions options;
    options.standardError = terminal.path();
    options.standardOutput = at("out");
    auto child = ChildProcess::program(test::places::kControlProgram,
                                       {"image", tallInput(6000), at("a.jp2")}, options);
    EXPECT_EQ(child.waitForExit(std::chrono::seconds(120)), 0);
    const std::string shown = terminal.shownUntil("");
    EXPECT_NE(shown.find("\r\"" + at("a.jp2") + "\": "), std::string::npos) << shown;
    EXPECT_NE(shown.find(" %\x1b[K"), std::string::npos) << shown;
    EXPECT_TRUE(shown.ends_with("\r\x1b[K")) << shown;
    EXPECT_TRUE(hasWritten("a.jp2"));
}

TEST_F(ImageCommand, LeavesNothingBehindWhenItIsInterrupted) {
    for (const int number : {SIGINT, SIGTERM}) {
        Terminal terminal;
        ChildProcessOptions options;
        options.standardError = terminal.path();
        auto child = ChildProcess::program(test::places::kControlProgram,
                                           {"image", tallInput(9000), at("a.jp2")}, options);
        EXPECT_NE(terminal.shownUntil(" %").find(" %"), std::string::npos);
        child.signal(number);
        EXPECT_EQ(child.waitForExit(std::chrono::seconds(60)), 128 + number);
        EXPECT_FALSE(hasWritten("a.jp2"));
    }
}

}  // namespace
