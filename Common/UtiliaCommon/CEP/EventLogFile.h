#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Common/Platform/LockedFile.h"
#include "Common/UtiliaCommon/CEP/EventLog.h"
#include "Common/UtiliaCommon/CEP/EventLogHeader.h"

namespace utilia {

// The log's files in their folder, and the protocol by which writers and collectors share them.
// CEPLogEvent() and CEPLogGrab() are the process's one instance of it; codes are theirs.
//
// Threads: any, at the same time.
class EventLogFile final {
public:
    static constexpr std::uint64_t kLargestSize = 5'242'880;
    // Records that follow each other within this time find the log open.
    static constexpr std::chrono::milliseconds kBurst{10};

    struct Names {
        std::string CEPLogName;
        std::string CEPLogNameOld;    // only ever collected
        std::string CEPLogMoreName;   // the overflow file
        std::string CEPLogTakenName;  // of a file that a collector takes away

        static Names inFolder(std::string_view logs);
    };
    using Facts = std::function<EventLogFacts()>;

    // The facts are asked for when a file begins. A file that is larger than `largestSize` is ended
    // by the next writer.
    EventLogFile(Names names, Facts facts, std::uint64_t largestSize = kLargestSize,
                 std::chrono::milliseconds burst = kBurst);

    const Names& names() const { return names_; }

    EventLogCode append(std::string_view record) const;
    // Gives up the log that is kept open for the next record, if no other thread is at it.
    void closeKept() const;

    struct Grabbed {
        EventLogCode code = EventLogCode::NothingToGrab;
        platform::UniqueFd file = {};  // only with code Done
        bool isMore = true;
    };
    Grabbed grab() const;

    std::vector<std::string> documents() const;

private:
    enum class Taking { Done, Nothing, Overtaken, Failed };
    enum class Ending { Done, NameTaken, Failed };

    using Clock = std::chrono::steady_clock;
    // The log that was appended to last. It stays open in a burst of records, since opening costs more
    // than all else that a record takes; locked it is only meanwhile.
    struct Kept {
        std::mutex turn;  // never waited for: whoever has no turn opens the log himself
        std::optional<platform::LockedFile> file = {};
        platform::LockedFile::Status status = {};
        Clock::time_point lookedAtName = {};
        Clock::time_point lastRecord = {};
    };

    bool isKeptStillTheLog(platform::LockedFile& log, Clock::time_point now) const;
    std::optional<EventLogCode> appendToKept(std::string_view record) const;
    EventLogCode appendAndKeep(platform::LockedFile log, Clock::time_point opened,
                               std::string_view record) const;
    EventLogCode createAndAppend(std::string_view record, bool* isTaken) const;
    std::optional<platform::LockedFile> openToLook(const std::string& name) const;
    Ending endSource(const std::string& source, EventLogCode* code) const;
    Taking take(platform::UniqueFd* taken) const;
    Taking takeLeftOver(platform::UniqueFd* taken) const;
    bool removeFirstName(const platform::LockedFile& file) const;
    Taking takeOverflow(platform::UniqueFd* taken) const;
    Result<platform::UniqueFd> handOver(platform::LockedFile& file, const std::string& name) const;
    void end(platform::LockedFile& file, const std::string& name) const;

    Names names_;
    Facts facts_;
    std::uint64_t largestSize_;
    std::chrono::milliseconds burst_;
    mutable Kept kept_ = {};
};

}  // namespace utilia
