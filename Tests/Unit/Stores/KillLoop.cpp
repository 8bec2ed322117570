// kill_loop [--kills N]
//
// Kills processes that write one domain of preferences (StoreKillLoop.h).

#include <memory>
#include <string>

#include "Common/Platform/UserDefaults.h"
#include "Tests/Support/StoreKillLoop.h"

namespace {

using namespace utilia;
using platform::UserDefaults;
using test::StoreKillLoop;

constexpr std::string_view kDomain = "com.example.killed";

std::string keyOf(int writer) { return "writer " + std::to_string(writer); }

std::string makeStore() {
    const auto defaults = UserDefaults::initWithDomain(kDomain);
    defaults->setObject(0, "start");
    return defaults->path();
}

StoreKillLoop::Update makeWriter(int writer) {
    const std::shared_ptr<UserDefaults> defaults = UserDefaults::initWithDomain(kDomain);
    return [defaults, key = keyOf(writer)]() -> std::optional<std::int64_t> {
        const std::int64_t next = defaults->integerForKey(key) + 1;
        defaults->setObject(next, key);
        if (!defaults->synchronize()) return std::nullopt;
        return next;
    };
}

void look(const Dictionary& store, StoreKillLoop::Acknowledged acknowledged,
          test::StoreFindings& findings) {
    findings.missing += store.find("start") == nullptr;
    for (int i = 0; i < test::kKilledWriters; ++i) {
        const Value* const found = store.find(keyOf(i));
        findings.missing +=
            (found ? found->longLongValue() : 0) < acknowledged[static_cast<std::size_t>(i)];
    }
}

}  // namespace

int main(int argc, char** argv) {
    return test::runStoreKillLoop(argc, argv,
                                  {.name = "kill_loop",
                                   .kills = 5000,
                                   .makeStore = makeStore,
                                   .makeWriter = makeWriter,
                                   .look = look});
}
