#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Common/Foundation/Export.h"
#include "Common/Foundation/Result.h"
#include "Common/Platform/Task.h"

// The command that packs one report, posts it, and removes it when the server has accepted it
// (Documentation/Formats/UsageReports.md).
//
// Threads: any.

namespace utilia {

// What differs between machines and in tests.
struct ReportUploadPlace {
    std::string endpoint;                   // a URL without blanks or quotes
    std::string curlHome;                   // the folder of the .curlrc that holds for uploads
    std::vector<std::string> proxies = {};  // NAME=VALUE, of reportUploadProxies()
};

// Whether this build uploads at all; where it does not, nothing below does anything.
UTILIA_EXPORT bool isReportUploadBuilt();
// Where reports are posted: fixed when the library is built.
UTILIA_EXPORT std::string reportUploadEndpoint();
// The folder of the framework's own .curlrc; empty without the framework's bundle.
std::string reportUploadCurlHome();
// The proxies that the environment names, for uploads. On the thread that may change the environment.
std::vector<std::string> reportUploadProxies();
// The file that takes what the server answers: "…/Library/Logs/krv.utilia.ceplog.log".
UTILIA_EXPORT std::string reportUploadOutput();

// Whether the path means itself in the command: it holds none of , ; " $ ` \ and no line break.
UTILIA_EXPORT bool isUsableInUpload(std::string_view path);

// The command for bash. Contract: the text stands exactly so.
UTILIA_EXPORT std::string reportUploadCommand(std::string_view report, std::string_view output,
                                              std::string_view endpoint);

// The task that runs the command, and nothing but what it needs around it. Fails with NotFound when
// the framework's bundle, or the folder of the .curlrc, lacks what uploads need.
UTILIA_EXPORT Result<platform::Task> reportUploadTask(const std::string& report,
                                                      const ReportUploadPlace& place);

}  // namespace utilia
