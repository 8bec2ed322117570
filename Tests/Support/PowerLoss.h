#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

// What a loss of power may leave of the files in a folder.
//
//     PowerLossRecorder recorder(folder);       // what lies there now is on the disk
//     … this thread writes, syncs, renames …
//     recorder.stop();
//     recorder.forEachState([&](const DiskState& state) { … });
//
// A disk keeps what was synced, and of everything else what it likes. Names (of new files, renames,
// links and removals) reach it in their order, at any later time, since nobody syncs the folder.
// Data that was not synced is there, is missing, ends at some block of 512 bytes, or reads as
// zeros; and that is so whether or not a later rename has reached the disk.
//
// Needs utilia_fault_injection. Threads: the one that made it.

struct UtiliaFileChange;

namespace utilia::test {

struct DiskState {
    std::map<std::string, std::string> files;   // content by path below the folder
    std::map<std::string, std::string> intact;  // the same, with all the data written by then
    std::string description;
};

class PowerLossRecorder final {
public:
    explicit PowerLossRecorder(std::filesystem::path folder);
    ~PowerLossRecorder() { stop(); }
    PowerLossRecorder(const PowerLossRecorder&) = delete;
    PowerLossRecorder& operator=(const PowerLossRecorder&) = delete;

    void stop();
    std::size_t changes() const { return changes_; }

    // Calls with each state once; answers how many there are. Throws when something was recorded
    // that cannot be taken apart.
    [[nodiscard]] std::size_t
    forEachState(const std::function<void(const DiskState&)>& check) const;

private:
    struct DataChange {
        enum class Kind { Write, Truncate, Sync } kind;
        std::size_t moment;
        std::uint64_t at = 0;  // of a write; the size for a truncate
        std::string bytes;
    };
    using File = std::vector<DataChange>;
    struct NameChange {
        std::size_t moment;
        std::string path;
        int file = -1;     // that has the name now; -1: none
        std::string from;  // loses its name at the same time; "" none
    };
    struct Loss {
        enum class Kind { None, Missing, Zeros, Cut } kind;
        std::size_t blocks = 0;  // that are left, for a cut
    };

    static void observe(const UtiliaFileChange* change);
    void record(const UtiliaFileChange& change);
    void recordOpen(int descriptor, int flags);
    std::string nameOf(int folder, const char* path) const;
    int fileOf(int descriptor) const;
    int newFile(std::uint64_t inode);
    static std::string content(const File& file, std::size_t moment, const Loss& loss);
    static std::size_t unsyncedBytes(const File& file, std::size_t moment);
    std::map<std::string, int> namesAfter(std::size_t count) const;
    std::vector<Loss> lossesAt(std::size_t moment) const;

    const std::filesystem::path folder_;
    bool isRecording_ = true;
    std::size_t changes_ = 0;
    std::string notUnderstood_;
    std::vector<File> files_;
    std::vector<NameChange> names_;
    std::map<std::string, int> current_;        // by path
    std::map<std::uint64_t, int> fileOfInode_;  // the last file that had the inode
};

}  // namespace utilia::test
