#include "Common/Platform/Linux/ModuleLoader.h"

#include <map>
#include <mutex>
#include <string>

#include <dlfcn.h>

#include "Common/Platform/Linux/FrameworkLocation.h"

namespace utilia::platform {
namespace {

// Modules that were asked for, by name. Never unloaded and never destroyed: code of theirs may run
// to the very end.
struct Registry {
    std::mutex mutex;
    std::map<std::string, Result<void*>, std::less<>> modules;
};

Registry& registry() {
    static auto* all = new Registry;
    return *all;
}

Error unavailable(std::string_view name, std::string_view why) {
    return Error::utilia(UtiliaErrorCode::Unavailable,
                         "module " + std::string(name) + ": " + std::string(why));
}

std::string lastLoaderError() {
    const char* text = dlerror();
    return text ? text : "unknown reason";
}

// Everything is bound at once, so that a library the module lacks is an error here and not a death
// later; its symbols stay its own, so that a host with other versions of the same libraries is not
// disturbed.
Result<void*> openModule(std::string_view name) {
    const std::string framework = frameworkLocation();
    if (framework.empty()) return unavailable(name, "the framework's bundle is missing");
    const std::string path = framework + "/Modules/" + std::string(name) + ".so";
    void* module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!module) return unavailable(name, lastLoaderError());
    return module;
}

}  // namespace

Result<void*> moduleSymbol(std::string_view name, const char* symbol) {
    Registry& all = registry();
    const std::lock_guard guard(all.mutex);
    auto found = all.modules.find(name);
    if (found == all.modules.end())
        found = all.modules.emplace(std::string(name), openModule(name)).first;
    if (!found->second) return found->second.error();
    void* address = dlsym(*found->second, symbol);
    if (!address) return unavailable(name, lastLoaderError());
    return address;
}

}  // namespace utilia::platform
