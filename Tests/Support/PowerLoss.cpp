#include "Tests/Support/PowerLoss.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <unordered_set>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Tests/Support/FaultInjection/FaultPlan.h"

namespace utilia::test {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kBlock = 512;
// How many of the last names may be missing. Any number may, but what is older than a few
// operations only repeats what an earlier moment has shown.
constexpr std::size_t kMostNamesMissing = 8;

PowerLossRecorder* recording = nullptr;

}  // namespace

PowerLossRecorder::PowerLossRecorder(fs::path folder) : folder_(fs::canonical(folder)) {
    for (const auto& entry : fs::recursive_directory_iterator(folder_)) {
        if (!entry.is_regular_file()) continue;
        struct stat status {};
        if (stat(entry.path().c_str(), &status) != 0) throw std::runtime_error("stat");
        const int file = newFile(status.st_ino);
        std::ifstream stream(entry.path(), std::ios::binary);
        std::string bytes((std::istreambuf_iterator<char>(stream)), {});
        auto& history = files_[static_cast<std::size_t>(file)];
        history.push_back({DataChange::Kind::Write, 0, 0, std::move(bytes)});
        history.push_back({DataChange::Kind::Sync, 0, 0, {}});
        const std::string path = entry.path().lexically_relative(folder_);
        current_[path] = file;
        names_.push_back({0, path, file, {}});
    }
    if (std::exchange(recording, this)) throw std::runtime_error("one recorder at a time");
    utiliaFaultObserve(&PowerLossRecorder::observe);
}

void PowerLossRecorder::stop() {
    if (!std::exchange(isRecording_, false)) return;
    utiliaFaultObserve(nullptr);
    recording = nullptr;
}

void PowerLossRecorder::observe(const UtiliaFileChange* change) {
    // What is done here is not recorded.
    PowerLossRecorder* const self = std::exchange(recording, nullptr);
    if (!self) return;
    self->record(*change);
    recording = self;
}

// "" for what lies outside of the folder.
std::string PowerLossRecorder::nameOf(int folder, const char* path) const {
    fs::path whole = path;
    if (whole.is_relative() && folder != AT_FDCWD) {
        std::error_code error;
        whole = fs::read_symlink("/proc/self/fd/" + std::to_string(folder), error) / whole;
    }
    whole = fs::absolute(whole).lexically_normal();
    const std::string name = whole.lexically_relative(folder_);
    return name.starts_with("..") || name == "." ? std::string() : name;
}

int PowerLossRecorder::fileOf(int descriptor) const {
    struct stat status {};
    if (fstat(descriptor, &status) != 0) return -1;
    const auto found = fileOfInode_.find(status.st_ino);
    return found == fileOfInode_.end() ? -1 : found->second;
}

int PowerLossRecorder::newFile(std::uint64_t inode) {
    files_.emplace_back();
    return fileOfInode_[inode] = static_cast<int>(files_.size()) - 1;
}

void PowerLossRecorder::recordOpen(int descriptor, int flags) {
    const bool isUnnamed = (flags & O_TMPFILE) == O_TMPFILE;
    if (!isUnnamed && !(flags & (O_CREAT | O_TRUNC))) return;
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    std::error_code error;
    const std::string path = fs::read_symlink(link, error);
    struct stat status {};
    if (fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) return;
    if (isUnnamed) {
        if (!nameOf(AT_FDCWD, path.c_str()).empty()) newFile(status.st_ino);
        return;
    }
    const std::string name = nameOf(AT_FDCWD, path.c_str());
    if (name.empty()) return;
    if (!current_.contains(name)) {
        const int file = newFile(status.st_ino);
        current_[name] = file;
        names_.push_back({++changes_, name, file, {}});
    } else if (flags & O_TRUNC) {
        files_[static_cast<std::size_t>(current_[name])].push_back(
            {DataChange::Kind::Truncate, ++changes_, 0, {}});
    }
}

void PowerLossRecorder::record(const UtiliaFileChange& change) {
    const auto change_data = [&](DataChange::Kind kind, std::uint64_t at, std::string bytes) {
        if (const int file = fileOf(change.file); file >= 0)
            files_[static_cast<std::size_t>(file)].push_back(
                {kind, ++changes_, at, std::move(bytes)});
    };
    switch (change.call) {
    case kUtiliaFaultOpen:
        recordOpen(change.file, change.flags);
        break;
    case kUtiliaFaultWrite:
        if (change.file < 0) {
            notUnderstood_ = "a write of a kind that is not recorded";
        } else {
            const off_t end = lseek(change.file, 0, SEEK_CUR);
            if (end < 0) break;  // no file
            change_data(DataChange::Kind::Write, static_cast<std::uint64_t>(end) - change.size,
                        std::string(static_cast<const char*>(change.bytes), change.size));
        }
        break;
    case kUtiliaFaultTruncate:
        change_data(DataChange::Kind::Truncate, change.size, {});
        break;
    case kUtiliaFaultSync:
        change_data(DataChange::Kind::Sync, 0, {});
        break;
    case kUtiliaFaultUnlink: {
        const std::string name = nameOf(change.folder, change.path);
        if (current_.erase(name)) names_.push_back({++changes_, name, -1, {}});
        break;
    }
    case kUtiliaFaultRename:
    case kUtiliaFaultLink: {
        const std::string name = nameOf(change.folder, change.path);
        if (name.empty()) break;
        struct stat status {};
        if (stat((folder_ / name).c_str(), &status) != 0) break;
        const auto found = fileOfInode_.find(status.st_ino);
        if (found == fileOfInode_.end()) {
            notUnderstood_ = "a file from elsewhere became " + name;
            break;
        }
        std::string from;
        if (change.call == kUtiliaFaultRename) {
            from = nameOf(change.fromFolder, change.from);
            // Two names of one file: a rename between them does nothing.
            const auto before = current_.find(name);
            if (before != current_.end() && before->second == found->second) break;
            current_.erase(from);
        }
        current_[name] = found->second;
        names_.push_back({++changes_, name, found->second, std::move(from)});
        break;
    }
    default:
        break;
    }
}

std::string PowerLossRecorder::content(const File& file, std::size_t moment, const Loss& loss) {
    std::size_t synced = 0;
    for (std::size_t i = 0; i < file.size() && file[i].moment <= moment; ++i) {
        if (file[i].kind == DataChange::Kind::Sync) synced = i;
    }
    std::string bytes;
    std::size_t left = loss.blocks * kBlock;
    for (std::size_t i = 0; i < file.size() && file[i].moment <= moment; ++i) {
        const DataChange& change = file[i];
        const bool isSafe = i < synced || loss.kind == Loss::Kind::None;
        if (!isSafe && loss.kind == Loss::Kind::Missing) break;
        if (change.kind == DataChange::Kind::Truncate) {
            bytes.resize(change.at);
        } else if (change.kind == DataChange::Kind::Write) {
            std::string part = change.bytes;
            if (!isSafe && loss.kind == Loss::Kind::Zeros) part.assign(part.size(), '\0');
            if (!isSafe && loss.kind == Loss::Kind::Cut) {
                part.resize(std::min(part.size(), left));
                left -= part.size();
            }
            if (part.empty()) continue;
            if (bytes.size() < change.at + part.size()) bytes.resize(change.at + part.size());
            bytes.replace(change.at, part.size(), part);
        }
    }
    return bytes;
}

std::size_t PowerLossRecorder::unsyncedBytes(const File& file, std::size_t moment) {
    std::size_t bytes = 0;
    for (const DataChange& change : file) {
        if (change.moment > moment) break;
        if (change.kind == DataChange::Kind::Sync) bytes = 0;
        bytes += change.bytes.size();
    }
    return bytes;
}

std::map<std::string, int> PowerLossRecorder::namesAfter(std::size_t count) const {
    std::map<std::string, int> names;
    for (std::size_t i = 0; i < count; ++i) {
        if (!names_[i].from.empty()) names.erase(names_[i].from);
        if (names_[i].file < 0) {
            names.erase(names_[i].path);
        } else {
            names[names_[i].path] = names_[i].file;
        }
    }
    return names;
}

std::vector<PowerLossRecorder::Loss> PowerLossRecorder::lossesAt(std::size_t moment) const {
    std::size_t bytes = 0;
    for (const File& file : files_) bytes = std::max(bytes, unsyncedBytes(file, moment));
    std::vector<Loss> losses{{Loss::Kind::None}};
    if (bytes == 0) return losses;
    losses.push_back({Loss::Kind::Missing});
    losses.push_back({Loss::Kind::Zeros});
    for (std::size_t blocks = 1; blocks * kBlock < bytes; ++blocks)
        losses.push_back({Loss::Kind::Cut, blocks});
    return losses;
}

std::size_t
PowerLossRecorder::forEachState(const std::function<void(const DiskState&)>& check) const {
    if (!notUnderstood_.empty()) throw std::runtime_error(notUnderstood_);
    std::unordered_set<std::string> seen;
    const auto first = static_cast<std::size_t>(std::count_if(
        names_.begin(), names_.end(), [](const NameChange& name) { return name.moment == 0; }));
    for (std::size_t moment = 0; moment <= changes_; ++moment) {
        const auto made = static_cast<std::size_t>(
            std::count_if(names_.begin(), names_.end(),
                          [&](const NameChange& name) { return name.moment <= moment; }));
        const auto losses = lossesAt(moment);
        const std::size_t fewest = std::max(first, made - std::min(made, kMostNamesMissing));
        for (std::size_t count = fewest; count <= made; ++count) {
            const auto names = namesAfter(count);
            for (const Loss& loss : losses) {
                DiskState state;
                std::string key;
                for (const auto& [path, file] : names) {
                    const File& history = files_[static_cast<std::size_t>(file)];
                    const std::string& bytes = state.files[path] = content(history, moment, loss);
                    state.intact[path] = content(history, moment, {Loss::Kind::None});
                    key += path + '\0' + std::to_string(bytes.size()) + '\0' +
                           std::to_string(std::hash<std::string>()(bytes)) + '\0';
                }
                if (!seen.insert(std::move(key)).second) continue;
                state.description = "after change " + std::to_string(moment) + " of " +
                                    std::to_string(changes_) + ", with " + std::to_string(count) +
                                    " of " + std::to_string(made) + " names";
                check(state);
            }
        }
    }
    return seen.size();
}

}  // namespace utilia::test
