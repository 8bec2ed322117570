#include "Benchmarks/Stores/PeerStores.h"

#include <cstdio>
#include <cstdlib>
#include <span>

#include <fcntl.h>
#include <glib.h>
#include <plist/plist.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Benchmarks/Support/Measure.h"

namespace utilia::bench {
namespace {

// One file that processes replace in turns.
class ReplacedFile final {
public:
    ReplacedFile(const std::string& folder, const std::string& name)
        : path_(folder + "/" + name), newPath_(path_ + ".new"),
          lock_(check(open((path_ + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600),
                      "open lock")) {}
    ~ReplacedFile() { close(lock_); }
    ReplacedFile(const ReplacedFile&) = delete;
    ReplacedFile& operator=(const ReplacedFile&) = delete;

    void lock() { check(flock(lock_, LOCK_EX), "flock"); }
    void unlock() { check(flock(lock_, LOCK_UN), "flock"); }

    Data read() const {
        const int file = check(open(path_.c_str(), O_RDONLY | O_CLOEXEC), "open");
        struct stat status {};
        check(fstat(file, &status), "fstat");
        Data bytes(static_cast<std::size_t>(status.st_size));
        check(::read(file, bytes.data(), bytes.size()), "read");
        close(file);
        return bytes;
    }

    void replace(std::span<const std::uint8_t> bytes) {
        const int file =
            check(open(newPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600), "open");
        check(write(file, bytes.data(), bytes.size()), "write");
        check(fdatasync(file), "fdatasync");
        close(file);
        check(rename(newPath_.c_str(), path_.c_str()), "rename");
    }

private:
    std::string path_;
    std::string newPath_;
    int lock_;
};

class BareReplace final : public PeerStore {
public:
    BareReplace(const std::string& folder, const Data& bytes) : file_(folder, "bare") {
        file_.lock();
        file_.replace(bytes);
        file_.unlock();
    }
    void update(int, int) override {
        file_.lock();
        file_.replace(file_.read());
        file_.unlock();
    }

private:
    ReplacedFile file_;
};

class PropertyListOnly final : public PeerStore {
public:
    explicit PropertyListOnly(const Data& bytes) : bytes_(bytes) {}
    void update(int record, int value) override {
        plist_t root = nullptr;
        plist_from_bin(reinterpret_cast<const char*>(bytes_.data()),
                       static_cast<std::uint32_t>(bytes_.size()), &root);
        plist_t records = plist_dict_get_item(root, "Scheduler");
        plist_t one = plist_array_get_item(records, static_cast<std::uint32_t>(record));
        if (!one) fail("the framework's file is not as expected");
        plist_dict_set_item(one, "interval", plist_new_uint(static_cast<std::uint64_t>(value)));
        char* written = nullptr;
        std::uint32_t size = 0;
        plist_to_bin(root, &written, &size);
        plist_to_bin_free(written);
        plist_free(root);
    }

private:
    Data bytes_;
};

class KeyFile final : public PeerStore {
public:
    explicit KeyFile(const std::string& folder) : file_(folder, "keys") {
        GKeyFile* keys = g_key_file_new();
        for (int record = 0; record < kRecords; ++record) {
            const std::string group = groupOf(record);
            g_key_file_set_string(keys, group.c_str(), "bundleid",
                                  "com.korvane.utilia.benchmark.tool");
            g_key_file_set_string(keys, group.c_str(), "name", group.c_str());
            g_key_file_set_boolean(keys, group.c_str(), "launchAtDate", TRUE);
            g_key_file_set_boolean(keys, group.c_str(), "launchAtLogin", FALSE);
            g_key_file_set_double(keys, group.c_str(), "date", 700'000'000.25);
            g_key_file_set_integer(keys, group.c_str(), "interval", 0);
            g_key_file_set_string(keys, group.c_str(), "note", "kept by this record alone");
            g_key_file_set_integer(keys, group.c_str(), "number", record);
        }
        write(keys);
    }

    void update(int record, int value) override {
        file_.lock();
        const Data bytes = file_.read();
        GKeyFile* keys = g_key_file_new();
        if (!g_key_file_load_from_data(keys, reinterpret_cast<const char*>(bytes.data()),
                                       bytes.size(), G_KEY_FILE_NONE, nullptr)) {
            fail("key file");
        }
        g_key_file_set_integer(keys, groupOf(record).c_str(), "interval", value);
        write(keys);
        file_.unlock();
    }

private:
    static std::string groupOf(int record) { return "tool" + std::to_string(record); }

    void write(GKeyFile* keys) {
        gsize size = 0;
        gchar* text = g_key_file_to_data(keys, &size, nullptr);
        file_.replace({reinterpret_cast<const std::uint8_t*>(text), size});
        g_free(text);
        g_key_file_free(keys);
    }

    ReplacedFile file_;
};

class SQLite final : public PeerStore {
public:
    explicit SQLite(const std::string& folder) {
        if (sqlite3_open((folder + "/store.sqlite").c_str(), &base_) != SQLITE_OK)
            fail("sqlite3_open");
        run("PRAGMA journal_mode=DELETE");
        run("PRAGMA synchronous=NORMAL");
        run("CREATE TABLE records (id INTEGER PRIMARY KEY, bundleid TEXT, name TEXT, launchAtDate "
            "INTEGER, "
            "launchAtLogin INTEGER, date REAL, interval INTEGER, note TEXT, number INTEGER)");
        for (int record = 0; record < kRecords; ++record) {
            const std::string number = std::to_string(record);
            run("INSERT INTO records VALUES (" + number +
                ", 'com.korvane.utilia.benchmark.tool', 'tool" + number +
                "', 1, 0, 700000000.25, 0, 'kept by this record alone', " + number + ")");
        }
        if (sqlite3_prepare_v2(base_, "UPDATE records SET interval=?1 WHERE id=?2", -1, &statement_,
                               nullptr) != SQLITE_OK) {
            fail("sqlite3_prepare");
        }
    }
    ~SQLite() override {
        sqlite3_finalize(statement_);
        sqlite3_close(base_);
    }

    void update(int record, int value) override {
        sqlite3_bind_int(statement_, 1, value);
        sqlite3_bind_int(statement_, 2, record);
        if (sqlite3_step(statement_) != SQLITE_DONE) fail("sqlite3_step");
        sqlite3_reset(statement_);
    }

private:
    void run(const std::string& text) {
        if (sqlite3_exec(base_, text.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) fail(text);
    }

    sqlite3* base_ = nullptr;
    sqlite3_stmt* statement_ = nullptr;
};

}  // namespace

std::unique_ptr<PeerStore> makeBareReplace(const std::string& folder, const Data& bytes) {
    return std::make_unique<BareReplace>(folder, bytes);
}
std::unique_ptr<PeerStore> makePropertyListOnly(const Data& bytes) {
    return std::make_unique<PropertyListOnly>(bytes);
}
std::unique_ptr<PeerStore> makeKeyFile(const std::string& folder) {
    return std::make_unique<KeyFile>(folder);
}
std::unique_ptr<PeerStore> makeSQLite(const std::string& folder) {
    return std::make_unique<SQLite>(folder);
}

}  // namespace utilia::bench
