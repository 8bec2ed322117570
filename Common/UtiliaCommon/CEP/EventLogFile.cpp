#include "Common/UtiliaCommon/CEP/EventLogFile.h"

#include <cerrno>
#include <memory>
#include <optional>
#include <utility>

#include "Common/Foundation/PathFunctions.h"
#include "Common/Logging/Log.h"
#include "Common/Platform/FileManager.h"
#include "Common/UtiliaCommon/CEP/EventLogReader.h"
#include "Common/UtiliaCommon/CEP/EventRecord.h"

// The life of a file:
//
//     no file ── a writer makes one: locked, with its header ──▶ current
//     current ── writers append under shared locks ──▶ current
//     current ── a writer finds it too large: exclusive lock, rename, footer, read-only ──▶ overflow
//     overflow ── the next overflow replaces it, uncollected ──▶ gone
//     overflow ── a collector renames it ──▶ taken
//     current ── a collector ends it: exclusive lock, rename, footer, read-only ──▶ taken
//     taken ── the collector removes the name and has the only descriptor ──▶ gone
//
// The lock lies on the file and not on its name, and going from a shared to an exclusive lock lets
// go in between. So whoever got an exclusive lock looks whether the name still names his file, and
// begins anew otherwise; and a writer who waited for a file that was ended meanwhile sees that its
// owner may not write to it any more. Appending needs no look at the name: an ended file is
// read-only before its lock is free.
//
// A collector cannot simply remove the overflow file once it has its lock: between a look at the
// name and the removal a writer can put the next overflow file there, which would be lost. It
// renames whatever lies there to a name that only collectors use. What a killed collector leaves
// under that name, the next one takes first. And it ends the current file under that name as well,
// not under the overflow's, where another overflow may have come to lie meanwhile.
//
// A log stays open between the records of a burst; in the pauses of a tool nobody's disk keeps a log
// for it that was collected. Whoever ends it or removes it by these rules has left marks on
// the file itself, which its writer sees once he has the lock: it is read-only, or has no name.
// Against those who move it by no rule he looks at the name as well, unless he has just done so. He
// does not wait for the lock: whoever has it ends the log, and a collector as long as it reads. Nor
// does he lock or close what his program has put in its place: one that closes every descriptor has
// the number again for a file of its own.
//
// A process can be killed at any point of this. A record that was cut is blanked when its file is
// ended; everything else that a document needs and a killed process has not written is mended when
// it is handed over (EventLogReader.h).

namespace utilia {
namespace {

using platform::LockedFile;

// Nobody is overtaken that often; but what lies there may be no log, and nobody's turn ever comes.
constexpr int kMostAttempts = 10'000;
constexpr std::uint32_t kLogMode = 0644;
// Looking at a name costs three times as much as looking at an open file.
constexpr std::chrono::milliseconds kTrustInName{10};
constexpr std::size_t kMostOfPieces = std::size_t{16} << 20;
constexpr std::string_view kRootElement = "<KorvaneProblemReport>";
constexpr std::size_t kChunk = std::size_t{256} << 10;

bool isMissing(const Error& error) { return error.isPosix(ENOENT); }

// Calls `take` with all bytes of the file from its beginning.
template <class Take>
Result<void> readAll(LockedFile& file, Take take) {
    if (auto rewound = file.rewind(); !rewound) return rewound;
    const auto chunk = std::make_unique_for_overwrite<char[]>(kChunk);
    for (;;) {
        const auto length = file.read({chunk.get(), kChunk});
        if (!length) return length.error();
        if (*length == 0) return {};
        take(std::string_view(chunk.get(), *length));
    }
}

// What a whole document is made of again.
struct Parts {
    std::string header;
    std::string records;
    std::string pieces;  // at most kMostOfPieces of them
    std::uint64_t pieceBytes = 0;
    bool hasFooter = false;
    bool isWhole = false;  // as it is: a header, records, the footer and nothing else

    // A document of another program, which is not ours to mend; nothing that a log of ours is cut to.
    bool isForeign() const {
        const std::string_view text = pieces;
        const std::string ownStart = std::string(kHeaderStart) + std::string(kRootElement);
        return header.empty() && records.empty() && pieceBytes == pieces.size() &&
               text.starts_with('<') && !text.starts_with(kEventStart) &&
               !kEventStart.starts_with(text) && !ownStart.starts_with(text) &&
               text.find(kRootElement) == std::string_view::npos && isXmlText(text);
    }
};

Result<Parts> partsOf(LockedFile& file) {
    Parts parts;
    bool isInOrder = true;
    EventLogReader reader([&](LogPart part, std::uint64_t, std::string_view bytes) {
        isInOrder = isInOrder && !parts.hasFooter;
        switch (part) {
        case LogPart::Header:
            parts.header = bytes;
            break;
        case LogPart::Record:
            parts.records += bytes;
            break;
        case LogPart::Footer:
            parts.hasFooter = true;
            break;
        case LogPart::Piece:
            parts.pieceBytes += bytes.size();
            // Zeros can go on for as long as the disk is.
            parts.pieces += bytes.substr(0, kMostOfPieces - parts.pieces.size());
            [[fallthrough]];
        case LogPart::Blank:
            isInOrder = false;
            break;
        }
    });
    if (auto read = readAll(file, [&](std::string_view bytes) { reader.read(bytes); }); !read)
        return std::move(read).error();
    reader.finish();
    parts.isWhole = isInOrder && parts.hasFooter && !parts.header.empty();
    return parts;
}

void logPieces(std::uint64_t size, const std::string& name) {
    KULogVariadic("%@: %@ bytes that are no whole event are left out", name, std::to_string(size));
}

void appendHeader(std::string& document, const EventLogFacts& facts) {
    for (const std::string_view piece : eventLogHeader(facts)) document += piece;
}

std::string documentOf(Parts parts, const EventLogFile::Facts& facts) {
    if (parts.isForeign()) return parts.pieces + std::string(kEventLogFooter);
    std::string document = std::move(parts.header);
    if (document.empty()) appendHeader(document, facts());
    document += parts.records;
    document += kEventLogFooter;
    return document;
}

// Blanks what killed writers have left unfinished, in place: that needs no room on the disk, and
// whoever is killed while he does it leaves a file that is no worse.
void blankPieces(LockedFile& file, const std::string& name) {
    EventLogGlance glance;
    const auto look = readAll(file, [&](std::string_view bytes) { glance.read(bytes); });
    if (!look || glance.isSound()) return;
    bool isOurs = false;
    std::size_t size = 0;
    EventLogReader reader([&](LogPart part, std::uint64_t offset, std::string_view bytes) {
        if (part == LogPart::Header) isOurs = true;
        if (part != LogPart::Piece || !isOurs) return;
        std::string blanks(bytes.size(), ' ');
        blanks.back() = '\n';
        // What cannot be blanked now is left out by the collector.
        if (file.overwrite(offset, blanks)) size += bytes.size();
    });
    // Each piece is behind the reader when it is blanked.
    if (readAll(file, [&](std::string_view bytes) { reader.read(bytes); })) reader.finish();
    if (size > 0) logPieces(size, name);
}

}  // namespace

EventLogFile::Names EventLogFile::Names::inFolder(std::string_view logs) {
    const auto name = [logs](std::string_view file) {
        return stringByAppendingPathComponent(logs, file);
    };
    return {name("krv.utilia.ceplog.xml"), name("ceplog.xml"), name("krv.utilia.ceplog-more.xml"),
            name("krv.utilia.ceplog-taken.xml")};
}

EventLogFile::EventLogFile(Names names, Facts facts, std::uint64_t largestSize,
                           std::chrono::milliseconds burst)
    : names_(std::move(names)), facts_(std::move(facts)), largestSize_(largestSize), burst_(burst) {
}

EventLogCode EventLogFile::append(std::string_view record) const {
    if (record.size() > kLongestRecord) return EventLogCode::RecordNotWritten;
    if (const auto code = appendToKept(record)) return *code;
    for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
        const Clock::time_point opened = Clock::now();
        auto log = LockedFile::open(names_.CEPLogName, LockedFile::Access::Append,
                                    LockedFile::Lock::Shared);
        if (log) {
            const auto status = log->status();
            if (!status) return EventLogCode::LogNotReady;
            if (!status->isOwnerWritable) {
                // Nobody makes a file read-only before it has another name.
                const auto isStillThere = log->isAtPath(names_.CEPLogName);
                if (!isStillThere || *isStillThere) return EventLogCode::LogNotReady;
                continue;
            }
            if (status->size <= largestSize_) return appendAndKeep(*std::move(log), opened, record);
            if (!log->lock(LockedFile::Lock::Exclusive)) return EventLogCode::LogNotReady;
            const auto isStillThere = log->isAtPath(names_.CEPLogName);
            if (!isStillThere) return EventLogCode::LogNotReady;
            if (!*isStillThere) continue;
            if (!LockedFile::rename(names_.CEPLogName, names_.CEPLogMoreName))
                return EventLogCode::LogNotReady;
            end(*log, names_.CEPLogMoreName);
        } else if (!isMissing(log.error())) {
            return EventLogCode::LogNotReady;
        }
        bool isTaken = false;
        const EventLogCode code = createAndAppend(record, &isTaken);
        if (!isTaken) return code;
    }
    return EventLogCode::LogNotReady;
}

bool EventLogFile::isKeptStillTheLog(LockedFile& log, Clock::time_point now) const {
    const auto status = log.status();
    if (!status || !status->isSameFileAs(kept_.status) || status->links == 0 ||
        !status->isOwnerWritable || status->size > largestSize_)
        return false;
    if (now - kept_.lookedAtName < kTrustInName) return true;
    const auto there = log.isAtPath(names_.CEPLogName);
    kept_.lookedAtName = now;
    return there && *there;
}

// None where the log must be opened.
std::optional<EventLogCode> EventLogFile::appendToKept(std::string_view record) const {
    const std::unique_lock turn(kept_.turn, std::try_to_lock);
    if (!turn || !kept_.file) return std::nullopt;
    // Whatever fails from here on, its end gives the lock up.
    LockedFile log = *std::exchange(kept_.file, std::nullopt);
    const Clock::time_point now = Clock::now();
    if (!log.isOfThisProcess() || now - kept_.lastRecord >= burst_) return std::nullopt;
    // A lock would be another one's, and lost.
    if (!log.isStillKept()) return std::nullopt;
    // Who has locked it ends it or takes it away, and may take his time: the log is another one by then.
    const auto isLocked = log.tryLock(LockedFile::Lock::Shared);
    if (!isLocked || !*isLocked || !isKeptStillTheLog(log, now)) return std::nullopt;
    if (!log.append(record)) return EventLogCode::RecordNotWritten;
    if (log.unlock()) kept_.file = std::move(log);
    kept_.lastRecord = now;
    return EventLogCode::Done;
}

EventLogCode EventLogFile::appendAndKeep(LockedFile log, Clock::time_point opened,
                                         std::string_view record) const {
    if (!log.append(record)) return EventLogCode::RecordNotWritten;
    const std::unique_lock turn(kept_.turn, std::try_to_lock);
    if (!turn) return EventLogCode::Done;
    const bool isBurst = opened - std::exchange(kept_.lastRecord, opened) < burst_;
    if (!isBurst) return EventLogCode::Done;
    const auto status = log.status();
    if (status && log.keep() && log.unlock()) {
        kept_.file = std::move(log);
        kept_.status = *status;
        kept_.lookedAtName = opened;
    }
    return EventLogCode::Done;
}

void EventLogFile::closeKept() const {
    const std::unique_lock turn(kept_.turn, std::try_to_lock);
    if (turn) kept_.file.reset();
}

EventLogCode EventLogFile::createAndAppend(std::string_view record, bool* isTaken) const {
    const EventLogFacts facts = facts_();
    const Clock::time_point opened = Clock::now();
    auto log = LockedFile::create(names_.CEPLogName, kLogMode, eventLogHeader(facts));
    if (!log) {
        *isTaken = log.error().isPosix(EEXIST);
        return EventLogCode::LogNotReady;
    }
    return appendAndKeep(*std::move(log), opened, record);
}

// The file has another name already. What fails here a collector makes good.
void EventLogFile::end(LockedFile& file, const std::string& name) const {
    blankPieces(file, name);
    (void)file.append(kEventLogFooter);
    (void)file.makeReadOnly();
    (void)file.synchronize();
}

EventLogFile::Grabbed EventLogFile::grab() const {
    // Its room on the disk may be what the report needs.
    closeKept();
    const bool isLegacy = platform::FileManager::fileExistsAtPath(names_.CEPLogNameOld);
    const std::string& source = isLegacy ? names_.CEPLogNameOld : names_.CEPLogName;
    Grabbed grabbed;
    for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
        switch (take(&grabbed.file)) {
        case Taking::Done:
            grabbed.code = EventLogCode::Done;
            return grabbed;
        case Taking::Nothing:
            if (!grabbed.isMore) return grabbed;
            break;
        case Taking::Overtaken:
        case Taking::Failed:
            grabbed.code = EventLogCode::OverflowNotReadable;
            return grabbed;
        }
        grabbed.isMore = false;
        const Ending ending = endSource(source, &grabbed.code);
        if (ending == Ending::Failed) return grabbed;
        if (ending == Ending::NameTaken) {
            // That is taken now, and this one is still there.
            grabbed.isMore = true;
            continue;
        }
    }
    grabbed.code = EventLogCode::OverflowNotReadable;
    return grabbed;
}

// Afterwards what was the source has the name of taken files, unless there was none.
EventLogFile::Ending EventLogFile::endSource(const std::string& source, EventLogCode* code) const {
    const auto failed = [code](EventLogCode why) {
        *code = why;
        return Ending::Failed;
    };
    auto log = LockedFile::open(source, LockedFile::Access::Append, LockedFile::Lock::Exclusive);
    if (!log) return isMissing(log.error()) ? Ending::Done : failed(EventLogCode::LogNotOpened);
    if (!log->status()) return failed(EventLogCode::LogNotExamined);
    const auto isStillThere = log->isAtPath(source);
    if (!isStillThere) return failed(EventLogCode::LogNameNotExamined);
    if (!*isStillThere) return Ending::Done;
    const auto renamed = LockedFile::renameUnlessTaken(source, names_.CEPLogTakenName);
    if (!renamed && renamed.error().isPosix(EEXIST)) return Ending::NameTaken;
    if (!renamed) return failed(EventLogCode::LogNotMoved);
    end(*log, source);
    return Ending::Done;
}

EventLogFile::Taking EventLogFile::take(platform::UniqueFd* taken) const {
    for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
        Taking taking = takeLeftOver(taken);
        if (taking == Taking::Nothing) taking = takeOverflow(taken);
        if (taking != Taking::Overtaken) return taking;
    }
    return Taking::Failed;
}

EventLogFile::Taking EventLogFile::takeLeftOver(platform::UniqueFd* taken) const {
    auto file = LockedFile::open(names_.CEPLogTakenName, LockedFile::Access::Read,
                                 LockedFile::Lock::Exclusive);
    if (!file) return isMissing(file.error()) ? Taking::Nothing : Taking::Failed;
    const auto isStillThere = file->isAtPath(names_.CEPLogTakenName);
    if (!isStillThere) return Taking::Failed;
    if (!*isStillThere) return Taking::Overtaken;
    const auto isOverflow = file->isAtPath(names_.CEPLogMoreName);
    if (!isOverflow) return Taking::Failed;
    if (*isOverflow) {
        // The same has happened to an overflow, but writers put the next one under that name: only
        // the taken name is nobody else's now.
        return LockedFile::removeName(names_.CEPLogTakenName) ? Taking::Overtaken : Taking::Failed;
    }
    if (!removeFirstName(*file)) return Taking::Failed;
    // The name goes as long as the file is locked: others who wait for it must not find it there.
    auto whole = handOver(*file, names_.CEPLogTakenName);
    if (!whole || !LockedFile::removeName(names_.CEPLogTakenName)) return Taking::Failed;
    *taken = *std::move(whole);
    return Taking::Done;
}

// A log that is ended got its second name before it lost the first where a file system cannot rename
// without replacing, and its collector may have been killed in between. Nobody else touches the
// first as long as the file is locked.
bool EventLogFile::removeFirstName(const LockedFile& file) const {
    for (const std::string* name : {&names_.CEPLogName, &names_.CEPLogNameOld}) {
        const auto isThere = file.isAtPath(*name);
        if (!isThere || (*isThere && !LockedFile::removeName(*name))) return false;
    }
    return true;
}

EventLogFile::Taking EventLogFile::takeOverflow(platform::UniqueFd* taken) const {
    auto file = LockedFile::open(names_.CEPLogMoreName, LockedFile::Access::Read,
                                 LockedFile::Lock::Exclusive);
    if (!file) return isMissing(file.error()) ? Taking::Nothing : Taking::Failed;
    const auto isStillThere = file->isAtPath(names_.CEPLogMoreName);
    if (!isStillThere || !file->status()) return Taking::Failed;
    if (!*isStillThere) return Taking::Overtaken;
    const auto renamed =
        LockedFile::renameUnlessTaken(names_.CEPLogMoreName, names_.CEPLogTakenName);
    if (!renamed && renamed.error().isPosix(EEXIST)) return Taking::Overtaken;
    if (!renamed && !isMissing(renamed.error())) return Taking::Failed;
    // A writer may have put the next overflow file there just now. Then that one has been renamed
    // and is for the next collector, and this one has no name any more.
    const auto isNamed = file->isAtPath(names_.CEPLogTakenName);
    if (!isNamed) return Taking::Failed;
    auto whole = handOver(*file, names_.CEPLogMoreName);
    if (!whole) return Taking::Failed;
    if (*isNamed && !LockedFile::removeName(names_.CEPLogTakenName)) return Taking::Failed;
    *taken = *std::move(whole);
    return Taking::Done;
}

// The file itself, with its lock; or another one with what is whole in it, and then it stays locked.
Result<platform::UniqueFd> EventLogFile::handOver(LockedFile& file, const std::string& name) const {
    const auto status = file.status();
    if (!status) return status.error();
    // A writer who still waits for the lock must not believe that this is the log.
    if (status->isOwnerWritable) {
        if (auto ended = file.makeReadOnly(); !ended) return std::move(ended).error();
    }
    auto parts = partsOf(file);
    if (!parts) return std::move(parts).error();
    const bool isForeign = parts->isForeign();
    if (parts->isWhole || (isForeign && parts->hasFooter)) {
        if (auto rewound = file.rewind(); !rewound) return std::move(rewound).error();
        return file.takeDescriptor();
    }
    const std::uint64_t left = isForeign ? 0 : parts->pieceBytes;
    auto mended = LockedFile::createNameless(documentOf(*std::move(parts), facts_));
    if (!mended) return std::move(mended).error();
    if (left > 0) logPieces(left, name);
    return mended->takeDescriptor();
}

// The file that has the name while it is locked; empty when none can be had.
std::optional<LockedFile> EventLogFile::openToLook(const std::string& name) const {
    for (int attempt = 0; attempt < kMostAttempts; ++attempt) {
        auto file = LockedFile::open(name, LockedFile::Access::Read, LockedFile::Lock::Shared);
        if (!file || !file->status()) return std::nullopt;
        const auto isThere = file->isAtPath(name);
        if (!isThere) return std::nullopt;
        if (*isThere) return *std::move(file);
    }
    return std::nullopt;
}

std::vector<std::string> EventLogFile::documents() const {
    const bool isLegacy = platform::FileManager::fileExistsAtPath(names_.CEPLogNameOld);
    const std::string& source = isLegacy ? names_.CEPLogNameOld : names_.CEPLogName;
    // As long as this is held, it does not become an overflow file. A collector may rename that one
    // to the taken name meanwhile, but not the other way round.
    auto current = openToLook(source);
    auto overflow = openToLook(names_.CEPLogMoreName);
    auto taken = openToLook(names_.CEPLogTakenName);
    if (overflow && taken) {
        const auto isSame = overflow->isAtPath(names_.CEPLogTakenName);
        if (isSame && *isSame) taken.reset();
    }
    std::vector<Parts> all;
    for (std::optional<LockedFile>* file : {&taken, &overflow, &current}) {
        if (!*file) continue;
        if (auto parts = partsOf(**file)) all.push_back(*std::move(parts));
        file->reset();
    }
    std::vector<std::string> documents;
    for (Parts& parts : all) documents.push_back(documentOf(std::move(parts), facts_));
    return documents;
}

}  // namespace utilia
