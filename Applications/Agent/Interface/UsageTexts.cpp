#include "Applications/Agent/Interface/UsageTexts.h"

#include "Applications/Agent/AgentTextKeys.h"
#include "Common/UtiliaCommon/CEP/CEPLog.h"
#include "Common/UtiliaCommon/CEP/ReportUpload.h"

namespace utilia::agent {

bool isReportingOn() { return isReportUploadBuilt() && !CEPLog::sharedInstance().isCEPDisabled(); }

std::string_view usageExplanation() {
    const CEPLog& log = CEPLog::sharedInstance();
    if (log.isDisabledByAdministrator()) return kUsageByAdministratorText;
    if (!isReportUploadBuilt()) return kUsageNeverSentText;
    return log.isCEPDisabled() ? kUsageOffText : kUsageExplanationText;
}

}  // namespace utilia::agent
