#include "Common/Platform/Linux/FileLoads.h"

#include <atomic>
#include <cerrno>
#include <list>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include <unistd.h>

#include "Common/Platform/Linux/FileInput.h"
#include "Common/Platform/Thread.h"

namespace utilia::platform {
namespace {

struct FileLoad {
    std::string path;
    std::size_t maximumSize;
    URLTransport::Done done;
    // Made beforehand: for when there is no memory for a better one.
    Error outOfMemory = Error::url(URLErrorCode::Unknown, "out of memory");
};

struct Loads {
    std::mutex mutex;
    std::list<FileLoad> waiting;
    bool hasThread = false;
    const pid_t process = getpid();  // whose thread that is
};

// Never destroyed: the thread may be at work when the process ends. A forked child begins anew: it
// has neither the thread nor whoever may have held the lock.
Loads& loads() {
    static std::atomic<Loads*> current = nullptr;
    Loads* found = current;
    if (found && found->process == getpid()) return *found;
    auto made = std::make_unique<Loads>();
    if (current.compare_exchange_strong(found, made.get())) return *made.release();
    return *found;
}

URLErrorCode codeOf(const Error& error) {
    if (error.domain != kPosixErrorDomain) return URLErrorCode::Unknown;
    switch (error.code) {
    case ENOENT:
    case ENOTDIR:
    case ENAMETOOLONG:
    case ELOOP:
        return URLErrorCode::FileDoesNotExist;
    case EISDIR:
        return URLErrorCode::FileIsDirectory;
    case EACCES:
    case EPERM:
        return URLErrorCode::NoPermissionsToReadFile;
    case EFBIG:
        return URLErrorCode::DataLengthExceedsMaximum;
    default:
        return URLErrorCode::Unknown;
    }
}

void read(FileLoad load) noexcept {
    URLSessionResult result;
    try {
        auto content = FileInput::contents(load.path, load.maximumSize);
        if (content) {
            result.data = *std::move(content);
        } else {
            result.error = Error::url(codeOf(content.error()), content.error().description);
        }
    } catch (const std::bad_alloc&) {
        result.error = std::move(load.outOfMemory);
    }
    load.done(std::move(result));
}

void readAll(Loads& all) noexcept {
    for (;;) {
        std::list<FileLoad> next;
        {
            const std::lock_guard guard(all.mutex);
            if (all.waiting.empty()) {
                all.hasThread = false;
                return;
            }
            next.splice(next.begin(), all.waiting, all.waiting.begin());
        }
        read(std::move(next.front()));
    }
}

}  // namespace

void loadFile(const std::string& path, std::size_t maximumSize, URLTransport::Done done) {
    std::list<FileLoad> made;
    made.push_back({path, maximumSize, std::move(done)});
    Loads& all = loads();
    {
        const std::lock_guard guard(all.mutex);
        if (!all.hasThread)
            all.hasThread =
                Thread::detachNewThread("utilia-files", [&all] { readAll(all); }).has_value();
        if (all.hasThread) all.waiting.splice(all.waiting.end(), made);
    }
    if (!made.empty()) read(std::move(made.front()));
}

}  // namespace utilia::platform
