#include "Common/UtiliaCommon/CEP/ReportUpload.h"

// For builds without uploads: in place of ReportUpload.cpp, so that neither the command nor the
// endpoint is in the library.

namespace utilia {

bool isReportUploadBuilt() { return false; }

std::string reportUploadEndpoint() { return {}; }

std::string reportUploadCurlHome() { return {}; }

std::vector<std::string> reportUploadProxies() { return {}; }

std::string reportUploadOutput() { return {}; }

bool isUsableInUpload(std::string_view) { return false; }

std::string reportUploadCommand(std::string_view, std::string_view, std::string_view) { return {}; }

Result<platform::Task> reportUploadTask(const std::string&, const ReportUploadPlace&) {
    return Error::utilia(UtiliaErrorCode::Unavailable, "this build does not upload");
}

}  // namespace utilia
