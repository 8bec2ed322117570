#include "Applications/utiliactl/SharedStore.h"

#include <string>

#include "Common/Platform/FileManager.h"
#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"

namespace utilia::control {

Result<Dictionary> readSharedStore() {
    if (!platform::FileManager::containerURLForSecurityApplicationGroupIdentifier(
            kAppGroupIdentifier)) {
        return Error::utilia(UtiliaErrorCode::Unavailable, "the container of " +
                                                               std::string(kAppGroupIdentifier) +
                                                               " cannot be used");
    }
    Dictionary content;
    accessAppGroupPlist(
        [&content](platform::UserDefaults& suite) { content = suite.dictionaryRepresentation(); });
    return content;
}

}  // namespace utilia::control
