// shared_store_kill_loop [--kills N]
//
// Kills processes that update one scheduler record each in the suite that all tools share
// (StoreKillLoop.h). There is one record for each writer, and what nobody touched stays.

#include <string>

#include "Common/UtiliaCommon/Scheduler/AppGroupStore.h"
#include "Tests/Support/StoreKillLoop.h"

namespace {

using namespace utilia;
using test::StoreKillLoop;

std::string bundleIdOf(int writer) { return "writer " + std::to_string(writer); }

std::string makeStore() {
    std::string path;
    accessAppGroupPlist([&](platform::UserDefaults& suite) {
        suite.setObject("here", "untouched");
        path = suite.path();
    });
    return path;
}

StoreKillLoop::Update makeWriter(int writer) {
    return [writer] {
        std::int64_t next = 0;
        updateSchedulerPlist(bundleIdOf(writer), "counter", [&](Dictionary& record) {
            const Value* const count = record.find("count");
            next = (count ? count->longLongValue() : 0) + 1;
            record.set("count", next);
        });
        return next;
    };
}

void look(const Dictionary& store, StoreKillLoop::Acknowledged acknowledged,
          test::StoreFindings& findings) {
    findings.missing += store.string("untouched") != "here";
    const Array records = store.array(kSchedulerKey).value_or(Array());
    for (int i = 0; i < test::kKilledWriters; ++i) {
        int found = 0;
        std::int64_t count = 0;
        for (const Value& record : records) {
            const Dictionary* const fields = record.dictionary();
            if (!fields || fields->string(kSchedulerBundleIdKey) != bundleIdOf(i)) continue;
            ++found;
            const Value* const number = fields->find("count");
            count = number ? number->longLongValue() : 0;
        }
        findings.missing += count < acknowledged[static_cast<std::size_t>(i)];
        findings.twice += found > 1;
    }
}

}  // namespace

int main(int argc, char** argv) {
    return test::runStoreKillLoop(argc, argv,
                                  {.name = "shared_store_kill_loop",
                                   .kills = 2000,
                                   .makeStore = makeStore,
                                   .makeWriter = makeWriter,
                                   .look = look});
}
