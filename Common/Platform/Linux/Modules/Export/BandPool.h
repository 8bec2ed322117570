#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "Common/Platform/Linux/Modules/Export/BandCompressor.h"

namespace utilia::platform::pdf {

// A band to compress, and what came of it.
struct BandJob {
    enum class State { Waiting, Running, Done, OutOfMemory, Failed };

    Band band;
    CompressedBand result;
    State state = State::Waiting;  // guarded by the pool
};

// Compresses bands on a few threads, of which the caller's is one: it works while it waits. Others
// are started when there is something to do for them; where they cannot be had, there are fewer.
//
// Threads: the one that made it.
class BandPool final {
public:
    // `threads`: how many work at most, that of the caller included; at least 1.
    explicit BandPool(unsigned threads);
    // Waits for bands that are being compressed; those that wait are dropped.
    ~BandPool();
    BandPool(const BandPool&) = delete;
    BandPool& operator=(const BandPool&) = delete;

    unsigned threads() const { return threads_; }

    void add(std::shared_ptr<BandJob> job);
    bool isDone(const BandJob& job) const;
    // Works until the job has ended, and answers how.
    BandJob::State finish(const BandJob& job);

private:
    void startThread();
    void work();
    // Takes the oldest job that waits, does it without the lock, and tells.
    void workOn(std::unique_lock<std::mutex>& lock, std::unique_ptr<BandCompressor>& compressor);

    unsigned threads_;
    std::vector<std::thread> workers_;
    std::unique_ptr<BandCompressor> ownCompressor_;

    mutable std::mutex mutex_;
    std::condition_variable isWork_;
    std::condition_variable isDone_;
    std::deque<std::shared_ptr<BandJob>> waiting_;
    bool isEnding_ = false;
};

}  // namespace utilia::platform::pdf
