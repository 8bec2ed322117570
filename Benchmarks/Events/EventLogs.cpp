#include "Benchmarks/Events/EventLogs.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <fcntl.h>
#include <sched.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include "Benchmarks/Support/Measure.h"
#include "Common/UtiliaCommon/CEP/EventLog.h"

namespace utilia::bench {
namespace {

constexpr off_t kLargestSize = 5'242'880;
// With which the record of a program in no bundle has kRecordSize bytes.
constexpr std::size_t kFillingSize = 174;

const Dictionary& sampleDetails() {
    static const Dictionary details{{"filling", std::string(kFillingSize, 'x')}};
    return details;
}

class OwnLog final : public PeerLog {
public:
    void append() override {
        if (CEPLogEvent("Benchmark", nullptr, nullptr, &sampleDetails()) != 0) fail("CEPLogEvent");
    }
};

void put(int file, std::string_view bytes) {
    if (write(file, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
        fail("write");
}

class BareAppend final : public PeerLog {
public:
    explicit BareAppend(const std::string& folder)
        : file_(check(
              open((folder + "/append").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644),
              "open")) {}
    ~BareAppend() override { close(file_); }
    void append() override { put(file_, sampleRecord()); }

private:
    int file_;
};

// The framework's system calls, without a framework.
class HandMadeLog final : public PeerLog {
public:
    explicit HandMadeLog(const std::string& folder)
        : folder_(folder), path_(folder + "/log"), more_(folder + "/more") {}
    ~HandMadeLog() override { forget(); }

    void append() override {
        for (;;) {
            if (kept_ >= 0 && appendToKept()) return;
            const int file = open(path_.c_str(), O_WRONLY | O_APPEND | O_NOFOLLOW | O_NONBLOCK |
                                                     O_NOCTTY | O_CLOEXEC);
            if (file >= 0) {
                check(flock(file, LOCK_SH), "flock");
                struct stat found {};
                check(fstat(file, &found), "fstat");
                if ((found.st_mode & S_IWUSR) == 0) {
                    close(file);
                    continue;
                }
                if (found.st_size <= kLargestSize) return writeAndKeep(file, found.st_ino);
                if (!end(file, found)) continue;
            }
            if (create()) return;
        }
    }

private:
    static constexpr int kMark = 61;  // by which a kept descriptor is known again

    bool appendToKept() {
        struct stat found {};
        struct stat there {};
        if (fcntl(kept_, F_GETSIG) == kMark && flock(kept_, LOCK_SH | LOCK_NB) == 0 &&
            fstat(kept_, &found) == 0 && found.st_ino == inode_ && found.st_nlink > 0 &&
            (found.st_mode & S_IWUSR) != 0 && found.st_size <= kLargestSize) {
            const auto now = std::chrono::steady_clock::now();
            const bool mustLook = now - looked_ >= std::chrono::milliseconds(10);
            if (mustLook) looked_ = now;
            if (!mustLook || (lstat(path_.c_str(), &there) == 0 && there.st_ino == inode_)) {
                put(kept_, sampleRecord());
                check(flock(kept_, LOCK_UN), "flock");
                return true;
            }
        }
        forget();
        return false;
    }
    void writeAndKeep(int file, ino_t inode) {
        put(file, sampleRecord());
        check(flock(file, LOCK_UN), "flock");
        check(fcntl(file, F_SETSIG, kMark), "F_SETSIG");
        kept_ = file;
        inode_ = inode;
        looked_ = std::chrono::steady_clock::now();
    }
    void forget() {
        if (kept_ >= 0) close(kept_);
        kept_ = -1;
    }
    // False when somebody else was faster.
    bool end(int file, const struct stat& mine) const {
        check(flock(file, LOCK_EX), "flock");
        struct stat there {};
        const bool isMine = stat(path_.c_str(), &there) == 0 && there.st_ino == mine.st_ino;
        if (isMine) {
            check(rename(path_.c_str(), more_.c_str()), "rename");
            put(file, "</CepCustomData>\n</KorvaneProblemReport>\n");
            check(fchmod(file, mine.st_mode & 0444), "fchmod");
            check(fsync(file), "fsync");
        }
        close(file);
        return isMine;
    }
    bool create() const {
        const int file = check(
            open(folder_.c_str(), O_TMPFILE | O_WRONLY | O_APPEND | O_CLOEXEC, 0644), "O_TMPFILE");
        check(flock(file, LOCK_EX), "flock");
        std::string header(700, 'h');
        const iovec piece{header.data(), header.size()};
        check(writev(file, &piece, 1), "writev");
        const std::string self = "/proc/self/fd/" + std::to_string(file);
        const bool isMade =
            linkat(AT_FDCWD, self.c_str(), AT_FDCWD, path_.c_str(), AT_SYMLINK_FOLLOW) == 0;
        if (!isMade && errno != EEXIST) fail("linkat");
        if (isMade) put(file, sampleRecord());
        close(file);
        return isMade;
    }

    std::string folder_;
    std::string path_;
    std::string more_;
    int kept_ = -1;
    ino_t inode_ = 0;
    std::chrono::steady_clock::time_point looked_ = {};
};

class Spdlog final : public PeerLog {
public:
    explicit Spdlog(const std::string& folder)
        : log_(std::make_shared<spdlog::logger>(
              "events", std::make_shared<spdlog::sinks::basic_file_sink_mt>(folder + "/spdlog"))) {
        log_->set_pattern("%v");
        log_->flush_on(spdlog::level::info);
    }
    void append() override {
        const std::string_view record = sampleRecord();
        log_->info(spdlog::string_view_t(record.data(), record.size() - 1));
    }

private:
    std::shared_ptr<spdlog::logger> log_;
};

class Journal final : public PeerLog {
public:
    void append() override {
        const std::string_view record = sampleRecord();
        if (sd_journal_send("MESSAGE=%.*s", static_cast<int>(record.size()) - 1, record.data(),
                            "PRIORITY=6", nullptr) < 0)
            fail("sd_journal_send");
    }
};

class SQLiteLog final : public PeerLog {
public:
    explicit SQLiteLog(const std::string& folder) {
        expect(sqlite3_open((folder + "/events.db").c_str(), &database_), "open");
        sqlite3_busy_timeout(database_, 60'000);
        for (const char* statement :
             {"PRAGMA journal_mode=WAL", "PRAGMA synchronous=NORMAL",
              "CREATE TABLE IF NOT EXISTS events(id INTEGER PRIMARY KEY, record TEXT)"})
            expect(sqlite3_exec(database_, statement, nullptr, nullptr, nullptr), statement);
        expect(sqlite3_prepare_v2(database_, "INSERT INTO events(record) VALUES(?)", -1, &insert_,
                                  nullptr),
               "prepare");
    }
    ~SQLiteLog() override {
        sqlite3_finalize(insert_);
        sqlite3_close(database_);
    }
    void append() override {
        const std::string_view record = sampleRecord();
        sqlite3_bind_text(insert_, 1, record.data(), static_cast<int>(record.size()),
                          SQLITE_STATIC);
        expect(sqlite3_step(insert_), "insert");
        sqlite3_reset(insert_);
    }

private:
    void expect(int result, const char* what) const {
        if (result == SQLITE_OK || result == SQLITE_DONE) return;
        throw std::runtime_error(std::string("SQLite ") + what + ": " + sqlite3_errmsg(database_));
    }
    sqlite3* database_ = nullptr;
    sqlite3_stmt* insert_ = nullptr;
};

void mountMemory(const char* folder) {
    check(mount("tmpfs", folder, "tmpfs", 0, "mode=0755"), "mount");
}

}  // namespace

std::string_view sampleRecord() {
    static const std::string record = [] {
        std::string text = "<event timestamp=\"2026-11-21 12:00:00.000\" toollocation=\"\" "
                           "toolversion=\"\" action=\"Benchmark\">\n\t<details filling=\"";
        const std::string_view end = "\"/>\n</event>\n";
        text.append(kRecordSize - text.size() - end.size(), 'x');
        return text.append(end);
    }();
    return record;
}

std::unique_ptr<PeerLog> makeOwnLog() { return std::make_unique<OwnLog>(); }
std::unique_ptr<PeerLog> makeBareAppend(const std::string& folder) {
    return std::make_unique<BareAppend>(folder);
}
std::unique_ptr<PeerLog> makeHandMadeLog(const std::string& folder) {
    return std::make_unique<HandMadeLog>(folder);
}
std::unique_ptr<PeerLog> makeSpdlog(const std::string& folder) {
    return std::make_unique<Spdlog>(folder);
}
std::unique_ptr<PeerLog> makeJournal() { return std::make_unique<Journal>(); }
std::unique_ptr<PeerLog> makeSQLiteLog(const std::string& folder) {
    return std::make_unique<SQLiteLog>(folder);
}

pid_t startJournal() {
    namespace fs = std::filesystem;
    check(unshare(CLONE_NEWNS), "unshare");
    check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "mount");
    mountMemory("/run");
    mountMemory("/etc/systemd");
    fs::create_directories("/run/systemd/journal");
    fs::create_directories("/run/log/journal");
    std::ofstream("/etc/systemd/journald.conf")
        << "[Journal]\nStorage=volatile\nRuntimeMaxUse=512M\nRateLimitIntervalSec=0\n"
           "RateLimitBurst=0\nReadKMsg=no\nAudit=no\n";
    const pid_t journal = inChild([] {
        if (!std::freopen("/dev/null", "w", stderr)) _exit(1);
        execl("/lib/systemd/systemd-journald", "systemd-journald", nullptr);
        _exit(1);
    });
    waitUntil([] { return fs::exists("/run/systemd/journal/socket"); });
    return journal;
}

}  // namespace utilia::bench
