#include "Common/UtiliaCommon/CEP/EventLog.h"

#include <atomic>
#include <memory>
#include <new>
#include <utility>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Logging/MemoryGuard.h"
#include "Common/Platform/Bundle.h"
#include "Common/Platform/FileManager.h"
#include "Common/Platform/HostInfo.h"
#include "Common/UtiliaCommon/CEP/EventLogFile.h"
#include "Common/UtiliaCommon/CEP/EventRecord.h"

namespace utilia {
namespace {

using platform::Bundle;
using platform::FileManager;
using platform::HostInfo;

// By which the computer's name for this log differs from its name for anything else.
constexpr std::string_view kIdentityPurpose = "com.korvane.utilia.ceplog";
constexpr std::uint32_t kLogsFolderMode = 0644;

// What CEPLogInit() has learnt; never changes afterwards.
struct State {
    std::string CEPLogUUID;
    EventSource source;
    EventLogFile file;
    // Somebody may still use the one that was learnt before, so it stays.
    std::unique_ptr<const State> before = {};
};

std::atomic<State*> current{nullptr};

std::string bundleVersion(const Bundle& bundle) {
    const auto value = [&](std::string_view key) {
        const Value* found = bundle.infoDictionary().find(key);
        return found && found->string() ? *found->string() : std::string();
    };
    return value("CFBundleShortVersionString") + "-" + value("CFBundleVersion");
}

EventSource ownSource() {
    const Bundle* bundle = Bundle::mainBundle();
    if (!bundle) return {};
    return {bundle->bundleIdentifier(), bundle->bundlePath(), bundleVersion(*bundle)};
}

int codeOf(EventLogCode code) { return static_cast<int>(code); }

// The edge of the library: where memory runs out, nothing has happened.
template <class Function>
int guarded(EventLogCode outOfMemory, Function function) {
    try {
        return function();
    } catch (const std::bad_alloc&) {
        return codeOf(outOfMemory);
    }
}

}  // namespace

int CEPLogInit() {
    return guarded(EventLogCode::NoLogsFolder, [] {
        const std::string library = FileManager::libraryDirectory();
        if (!FileManager::isDirectoryAtPath(library)) return codeOf(EventLogCode::NoLogsFolder);
        const std::string logs = stringByAppendingPathComponent(library, "Logs");
        if (!FileManager::createDirectoryAtPath(logs, kLogsFolderMode))
            return codeOf(EventLogCode::NoLogsFolder);
        const std::string uuid = HostInfo().platformUUID(kIdentityPurpose);
        EventSource source = ownSource();
        auto facts = [uuid, version = source.CEPLogAppVersion] {
            return gatherEventLogFacts(HostInfo(), uuid, version);
        };
        std::unique_ptr<State> state(
            new State{uuid, std::move(source),
                      EventLogFile(EventLogFile::Names::inFolder(logs), std::move(facts))});
        State* const learnt = state.release();
        learnt->before.reset(current.exchange(learnt, std::memory_order_acq_rel));
        if (learnt->before) learnt->before->file.closeKept();
        return codeOf(EventLogCode::Done);
    });
}

int CEPLogEvent(std::string_view action, const Dictionary* attributes, const Dictionary* options,
                const Dictionary* details) {
    return guarded(EventLogCode::LogNotReady, [&] {
        const State* state = current.load(std::memory_order_acquire);
        if (!state) return codeOf(EventLogCode::LogNotReady);
        TextBuffer record;
        appendEventRecord(record, Date::now(), state->source, action, attributes, options, details);
        return codeOf(state->file.append(record.text()));
    });
}

int CEPLogGrab(int* isMore) {
    if (isMore) *isMore = 1;
    return guarded(EventLogCode::OverflowNotReadable, [&] {
        const State* state = current.load(std::memory_order_acquire);
        if (!state) return codeOf(EventLogCode::NothingToGrab);
        EventLogFile::Grabbed grabbed = state->file.grab();
        if (isMore) *isMore = grabbed.isMore ? 1 : 0;
        return grabbed.code == EventLogCode::Done ? grabbed.file.release() : codeOf(grabbed.code);
    });
}

std::vector<std::string> CEPLogDocuments() {
    return unlessOutOfMemory("CEPLogDocuments", [] {
        const State* state = current.load(std::memory_order_acquire);
        return state ? state->file.documents() : std::vector<std::string>();
    });
}

std::string CEPLogPath() {
    return unlessOutOfMemory("CEPLogPath", [] {
        const State* state = current.load(std::memory_order_acquire);
        return state ? state->file.names().CEPLogName : std::string();
    });
}

}  // namespace utilia
