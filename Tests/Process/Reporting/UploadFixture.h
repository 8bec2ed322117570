#pragma once

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "Common/Platform/Bundle.h"
#include "Common/Platform/Task.h"
#include "Common/UtiliaCommon/CEP/ReportUpload.h"
#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/NginxServer.h"
#include "Tests/Support/TextBetween.h"
#include "Tests/Unit/Reporting/ReportingFixture.h"

namespace utilia::test {

inline constexpr const char* kEndpointPath = "/utilia/1/cep";

// The output of a program that must succeed.
inline std::string outputOf(const std::string& program, const std::vector<std::string>& arguments,
                            const std::filesystem::path& scratch) {
    const auto file = scratch / "program output";
    std::filesystem::remove(file);
    auto process = ChildProcess::program(program, arguments, {.standardOutput = file});
    EXPECT_EQ(process.waitForExit(), 0) << program;
    return contentOf(file);
}

// What a server was sent as the one file of a form.
struct SentForm {
    std::string field;
    std::string fileName;
    std::string type;
    std::string content;

    static SentForm parse(const NginxRequest& request) {
        const std::string body = request.body();
        SentForm form;
        const std::string line = body.substr(0, body.find("\r\n"));
        const std::size_t head = body.find("\r\n\r\n");
        const std::size_t end = body.rfind("\r\n" + line + "--\r\n");
        const std::string fields = body.substr(0, head) + "\r\n";
        if (head == std::string::npos || end == std::string::npos) return form;
        form.field = textBetween(fields, "; name=\"", "\"");
        form.fileName = textBetween(fields, "filename=\"", "\"");
        form.type = textBetween(fields, "Content-Type: ", "\r\n");
        form.content = body.substr(head + 4, end - head - 4);
        return form;
    }
};

// A private user, and a server that takes his reports; what trusts its certificate is the
// configuration of the test's own uploads, which else is the framework's.
class UploadTest : public ReportingTest {
protected:
    // With other times: lines of the framework's configuration and what replaces them.
    void useServer(const NginxServer& server,
                   const std::vector<std::pair<std::string, std::string>>& changes = {}) {
        const platform::Bundle* const framework = platform::Bundle::frameworkBundle();
        ASSERT_NE(framework, nullptr);
        std::string text = contentOf(framework->resourcePath() + "/Upload/.curlrc");
        for (const auto& [line, replacement] : changes) {
            const std::size_t place = text.find("\n" + line + "\n");
            ASSERT_NE(place, std::string::npos) << line;
            text.replace(place + 1, line.size(), replacement);
        }
        text += "cacert = \"" + server.certificate().string() + "\"\n";
        writeFile(curlHome() / ".curlrc", text);
    }
    std::filesystem::path curlHome() const { return home_.path() / "curl"; }

    std::unique_ptr<CEPLog> makeUploader(const std::string& endpoint) const {
        auto log = std::make_unique<CEPLog>(
            CEPLogServices{.endpoint = endpoint, .curlHome = curlHome().string()});
        log->setCepOwner(true);
        return log;
    }
    std::unique_ptr<CEPLog> makeUploader(const NginxServer& server) const {
        return makeUploader(server.secureURL(kEndpointPath));
    }

    // Until the task of each report has ended; answers whether they have, false where there is none.
    [[nodiscard]] static bool waitForTasks(const std::vector<std::string>& reports) {
        if (reports.empty()) return false;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        for (const std::string& report : reports) {
            while (platform::Task::isLocked(report)) {
                if (std::chrono::steady_clock::now() > deadline) return false;
                std::this_thread::yield();
            }
        }
        return true;
    }
    static std::vector<std::string> filesInFolder() {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(reportFolder()))
            names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }
    static std::string pathOf(const std::string& name) { return reportFolder() + "/" + name; }
};

}  // namespace utilia::test
