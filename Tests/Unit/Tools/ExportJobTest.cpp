#include "Applications/Tools/ScreenCapture/ExportJob.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include <gmock/gmock.h>
#include <sys/resource.h>

#include "Common/Platform/RunLoop.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/ChildRole.h"
#include "Tests/Support/RecordingPort.h"
#include "Tests/Support/TemporaryHome.h"

namespace utilia::tools {
namespace {

using Outcome = ExportJob::Outcome;

class ExportJobTest : public testing::Test {
protected:
    // Noise, so that there is something to do.
    static std::shared_ptr<platform::Image> picture(std::uint32_t width, std::uint32_t height) {
        platform::BitmapImageRep bitmap{width, height, {}};
        std::uint32_t state = 1;
        bitmap.rgba.resize(std::size_t{4} * width * height);
        for (auto& byte : bitmap.rgba) {
            state = state * 1664525 + 1013904223;
            byte = static_cast<std::uint8_t>(state >> 24);
        }
        return platform::Image::initWithBitmap(std::move(bitmap));
    }
    ExportJob::Request request(const std::string& name, std::uint32_t side = 300) const {
        return {picture(side, side), (home_.path() / name).string(), std::nullopt, 100};
    }
    std::unique_ptr<ExportJob> start(ExportJob::Request request) {
        return std::make_unique<ExportJob>(
            std::move(request), [this](int percent) { percents_.push_back(percent); },
            [this](Outcome outcome, const std::string& reason) {
                outcome_ = outcome;
                reason_ = reason;
            });
    }
    bool ends() {
        return test::eventually([this] { return outcome_.has_value(); });
    }
    std::string contents(const std::string& name) const {
        std::ifstream file(home_.path() / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    test::TemporaryHome home_;
    std::vector<int> percents_;
    std::optional<Outcome> outcome_;
    std::string reason_;
};

TEST_F(ExportJobTest, SavesADocumentAndTellsHowFarItIs) {
    const auto job = start(request("a.pdf", 1000));
    ASSERT_TRUE(ends());
    EXPECT_EQ(outcome_, Outcome::Saved);
    EXPECT_THAT(contents("a.pdf"), testing::StartsWith("%PDF-"));
    EXPECT_FALSE(percents_.empty());
    EXPECT_TRUE(std::is_sorted(percents_.begin(), percents_.end()));
}

TEST_F(ExportJobTest, SavesABitmap) {
    auto wanted = request("a.png");
    wanted.type = platform::BitmapImageFileType::Png;
    const auto job = start(wanted);
    ASSERT_TRUE(ends());
    EXPECT_EQ(outcome_, Outcome::Saved);
    EXPECT_THAT(contents("a.png"), testing::StartsWith("\x89PNG"));
}

TEST_F(ExportJobTest, LeavesTheOldFileWhenItIsCancelled) {
    // A picture may be saved before the cancel comes: then it was too small.
    for (std::uint32_t side = 3000; outcome_ != Outcome::Cancelled; side *= 2) {
        ASSERT_LT(side, 10'000u);
        outcome_ = std::nullopt;
        std::ofstream(home_.path() / "a.pdf") << "old";
        const auto job = start(request("a.pdf", side));
        job->cancel();
        ASSERT_TRUE(ends());
    }
    EXPECT_EQ(contents("a.pdf"), "old");
}

TEST_F(ExportJobTest, SaysWhyAFileCannotBeWritten) {
    const auto job = start(request("missing/a.pdf"));
    ASSERT_TRUE(ends());
    EXPECT_EQ(outcome_, Outcome::Failed);
    EXPECT_THAT(reason_, testing::HasSubstr("missing"));
}

TEST_F(ExportJobTest, SaysWhyAFormatCannotHoldThePicture) {
    std::ofstream(home_.path() / "a.jpg") << "old";
    auto wanted = request("a.jpg");
    wanted.image = picture(2, 65'501);
    wanted.type = platform::BitmapImageFileType::Jpeg;
    const auto job = start(wanted);
    ASSERT_TRUE(ends());
    EXPECT_EQ(outcome_, Outcome::Failed);
    EXPECT_THAT(reason_, testing::EndsWith("JPEG holds at most 65,500 pixels a side"));
    EXPECT_EQ(contents("a.jpg"), "old");
}

UTILIA_CHILD_ROLE(saveOnAFullDisk) {
    // Files of this process end after a few bytes, as if the disk were full.
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{1000, 1000};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 2;
    std::optional<Outcome> outcome;
    std::string reason;
    platform::BitmapImageRep bitmap{100, 100, Data(std::size_t{100} * 100 * 4, 7)};
    const ExportJob job(
        {platform::Image::initWithBitmap(std::move(bitmap)), self.arguments.at(0),
         platform::BitmapImageFileType::Bmp},
        [](int) {},
        [&](Outcome became, const std::string& why) {
            outcome = became;
            reason = why;
        });
    if (!test::eventually([&] { return outcome.has_value(); })) return 3;
    if (outcome != Outcome::Failed) return 4;
    return reason.find("File too large") == std::string::npos ? 5 : 0;
}

TEST_F(ExportJobTest, SaysThatThereIsNoRoomAndLeavesTheOldFile) {
    std::ofstream(home_.path() / "a.bmp") << "old";
    auto child = test::ChildProcess::role("saveOnAFullDisk", {(home_.path() / "a.bmp").string()});
    EXPECT_EQ(child.waitForExit(), 0);
    EXPECT_EQ(contents("a.bmp"), "old");
}

TEST_F(ExportJobTest, FailsWithoutAPicture) {
    auto wanted = request("a.pdf");
    wanted.image = nullptr;
    const auto job = start(wanted);
    ASSERT_TRUE(ends());
    EXPECT_EQ(outcome_, Outcome::Failed);
    EXPECT_EQ(reason_, "there is no image");
    EXPECT_FALSE(std::filesystem::exists(home_.path() / "a.pdf"));
}

TEST_F(ExportJobTest, CallsNobodyAfterItsOwnEnd) {
    start(request("a.pdf", 2000)).reset();
    bool isServed = false;
    platform::MainQueue::async([&] { isServed = true; });
    EXPECT_TRUE(test::eventually([&] { return isServed; }));
    EXPECT_EQ(outcome_, std::nullopt);
    EXPECT_TRUE(percents_.empty());
}

}  // namespace
}  // namespace utilia::tools
