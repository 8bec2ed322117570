#include "Common/UtiliaCommon/CEP/ReportUpload.h"

#include <cstdlib>
#include <initializer_list>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/FileManager.h"

// The command is the product's on every system, and written for one on which tar is the BSD one and
// curl's exit status was taken for the server's word. What makes it right here lies around it: the
// programs "tar" and "curl" that the task finds first are the framework's own. They stand in its
// resource bundle, and lead to bsdtar and to a curl that ends with success only when the server's
// answer was 2xx. A .curlrc of the framework's takes the place of the user's.

namespace utilia {
namespace {

using platform::Bundle;
using platform::FileManager;

constexpr std::string_view kFormat =
    "tar -czf \"%@\" -s /.*\\.xml/Report\\.xml/g \"%@\" && curl -v -X POST  -H \"Content-Type: "
    "multipart/form-data\"  --form \"data=@%@\" %@ > \"%@\" && rm -f \"%@\" && rm -f \"%@\"";

constexpr std::string_view kSystemPath = "/usr/bin:/bin";

// The folder of the programs that stand before the system's; empty when they are not there.
std::string programFolder() {
    const Bundle* const framework = Bundle::frameworkBundle();
    const auto path =
        framework ? framework->pathForResource("UtiliaCommon", "bundle") : std::nullopt;
    const auto resources = path ? Bundle::bundleWithPath(*path) : nullptr;
    const auto tar = resources ? resources->pathForAuxiliaryExecutable("tar") : std::nullopt;
    const auto curl = resources ? resources->pathForAuxiliaryExecutable("curl") : std::nullopt;
    return tar && curl ? stringByDeletingLastPathComponent(*tar) : std::string();
}

std::string filled(std::string_view format, std::initializer_list<std::string_view> arguments) {
    std::string text;
    for (const std::string_view argument : arguments) {
        const std::size_t place = format.find("%@");
        text.append(format.substr(0, place)).append(argument);
        format.remove_prefix(place + 2);
    }
    return text.append(format);
}

Error missing(const std::string& what) { return Error::utilia(UtiliaErrorCode::NotFound, what); }

}  // namespace

bool isReportUploadBuilt() { return true; }

std::string reportUploadEndpoint() { return "https://" UTILIA_REPORT_HOST "/utilia/1/cep"; }

std::string reportUploadCurlHome() {
    const Bundle* const framework = Bundle::frameworkBundle();
    return framework ? stringByAppendingPathComponent(framework->resourcePath(), "Upload")
                     : std::string();
}

std::vector<std::string> reportUploadProxies() {
    std::vector<std::string> proxies;
    for (const char* const name :
         {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY", "no_proxy", "NO_PROXY"}) {
        if (const char* const value = std::getenv(name))
            proxies.push_back(std::string(name) + "=" + value);
    }
    return proxies;
}

std::string reportUploadOutput() {
    return stringByAppendingPathComponent(FileManager::libraryDirectory(),
                                          "Logs/krv.utilia.ceplog.log");
}

bool isUsableInUpload(std::string_view path) {
    return path.find_first_of(std::string_view(",;\"$`\\\n\r\0", 9)) == std::string_view::npos;
}

std::string reportUploadCommand(std::string_view report, std::string_view output,
                                std::string_view endpoint) {
    const std::string archive = std::string(report) + ".tar.gz";
    return filled(kFormat, {archive, report, archive, endpoint, output, archive, report});
}

Result<platform::Task> reportUploadTask(const std::string& report, const ReportUploadPlace& place) {
    const std::string programs = programFolder();
    if (programs.empty())
        return missing("tar and curl for the upload are missing in the framework's bundle");
    // PATH cannot name it.
    if (programs.find(':') != std::string::npos)
        return missing(programs + ": a colon in its name keeps tar and curl from being found");
    const std::string curlrc = stringByAppendingPathComponent(place.curlHome, ".curlrc");
    if (!FileManager::fileExistsAtPath(curlrc)) return missing(curlrc + " is missing");
    platform::Task task;
    task.launchPath = "/bin/bash";
    task.arguments = {"-c", reportUploadCommand(report, reportUploadOutput(), place.endpoint)};
    task.environment = {"PATH=" + programs + ":" + std::string(kSystemPath),
                        "CURL_HOME=" + place.curlHome, "LC_ALL=C"};
    task.environment.insert(task.environment.end(), place.proxies.begin(), place.proxies.end());
    task.lockedFile = report;
    return task;
}

}  // namespace utilia
