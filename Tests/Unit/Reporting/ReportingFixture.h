#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Common/Foundation/Value.h"
#include "Common/Platform/Task.h"
#include "Common/Platform/UserDefaults.h"
#include "Common/UtiliaCommon/CEP/CEPLog.h"
#include "Common/UtiliaCommon/CEP/EventLog.h"
#include "Common/UtiliaCommon/CEP/ReportFolder.h"
#include "Tests/Support/TemporaryHome.h"
#include "Tests/Support/TestLog.h"
#include "Tests/Support/TextBetween.h"
#include "Tests/Unit/Reporting/FakeClock.h"

namespace utilia::test {

// Takes the place of the launcher of tasks: nothing is run. From any thread.
class TaskRecorder final {
public:
    std::function<Result<void>(const platform::Task&)> launcher() {
        return [this](const platform::Task& task) -> Result<void> {
            const std::lock_guard guard(mutex_);
            tasks_.push_back(task);
            return {};
        };
    }
    std::vector<platform::Task> tasks() const {
        const std::lock_guard guard(mutex_);
        return tasks_;
    }
    std::size_t count() const { return tasks().size(); }

private:
    mutable std::mutex mutex_;
    std::vector<platform::Task> tasks_;
};

inline std::string contentOf(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline void writeFile(const std::filesystem::path& path, std::string_view content) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

// The actions of a document's records, in their order.
inline std::vector<std::string> actionsIn(const std::string& document) {
    std::vector<std::string> actions;
    std::size_t position = 0;
    for (;;) {
        std::size_t start = position;
        const std::string record = textBetween(document, "<event ", ">", &start);
        if (start == std::string::npos) break;
        position = start;
        actions.push_back(textBetween(record, " action=\"", "\""));
    }
    return actions;
}

// A private user whose event log is ready, and a CEPLog that launches nothing, at a time of the
// test's own.
class ReportingTest : public testing::Test {
protected:
    static constexpr Date kNow{800'000'000.25};

    void SetUp() override { ASSERT_EQ(CEPLogInit(), 0); }

    std::unique_ptr<CEPLog> makeLog() {
        return std::make_unique<CEPLog>(
            CEPLogServices{.clock = clock_, .launchTask = tasks_.launcher()});
    }
    static std::filesystem::path current() { return CEPLogPath(); }
    static std::filesystem::path overflow() {
        return current().parent_path() / "krv.utilia.ceplog-more.xml";
    }
    // What a collector that was killed has left.
    static std::filesystem::path taken() {
        return current().parent_path() / "krv.utilia.ceplog-taken.xml";
    }
    static std::filesystem::path legacy() { return current().parent_path() / "ceplog.xml"; }
    static std::string logText() { return contentOf(current()); }
    static std::vector<std::string> actions() { return actionsIn(logText()); }

    static std::unique_ptr<platform::UserDefaults> agentPreferences() {
        return platform::UserDefaults::initWithDomain("com.korvane.utilia");
    }
    static std::optional<Date> syncDate() {
        const auto value = agentPreferences()->objectForKey("CEPSyncDate");
        return value && value->date() ? std::optional(*value->date()) : std::nullopt;
    }
    static std::string report(std::size_t number = 0) {
        return contentOf(std::filesystem::path(reportFolder()) / reportName(number));
    }
    static bool isFinished(const std::string& document) {
        return document.starts_with("<?xml ") &&
               document.ends_with("</CepCustomData>\n</KorvaneProblemReport>\n");
    }

    const TemporaryHome home_;
    TestLog messages_;
    const std::shared_ptr<FakeClock> clock_ = std::make_shared<FakeClock>(kNow);
    TaskRecorder tasks_;
};

}  // namespace utilia::test
