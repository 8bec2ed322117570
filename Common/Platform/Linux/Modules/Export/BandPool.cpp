#include "Common/Platform/Linux/Modules/Export/BandPool.h"

#include <algorithm>
#include <csignal>
#include <new>
#include <system_error>
#include <utility>

#include <pthread.h>

namespace utilia::platform::pdf {

BandPool::BandPool(unsigned threads) : threads_(std::max(1u, threads)) {
    workers_.reserve(threads_ - 1);
}

BandPool::~BandPool() {
    {
        const std::lock_guard lock(mutex_);
        isEnding_ = true;
    }
    isWork_.notify_all();
    for (std::thread& worker : workers_) worker.join();
}

// A new thread inherits the mask of its maker: the host's signals must not arrive on it.
void BandPool::startThread() {
    sigset_t every;
    sigset_t before;
    sigfillset(&every);
    pthread_sigmask(SIG_SETMASK, &every, &before);
    try {
        workers_.emplace_back([this] {
            pthread_setname_np(pthread_self(), "utilia-export");
            work();
        });
    } catch (const std::system_error&) {
        threads_ = static_cast<unsigned>(workers_.size()) + 1;
    } catch (const std::bad_alloc&) {
        threads_ = static_cast<unsigned>(workers_.size()) + 1;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void BandPool::add(std::shared_ptr<BandJob> job) {
    bool isMoreThanOwn = false;
    {
        const std::lock_guard lock(mutex_);
        waiting_.push_back(std::move(job));
        isMoreThanOwn = waiting_.size() > 1;
    }
    if (isMoreThanOwn && workers_.size() + 1 < threads_) startThread();
    isWork_.notify_one();
}

bool BandPool::isDone(const BandJob& job) const {
    const std::lock_guard lock(mutex_);
    return job.state >= BandJob::State::Done;
}

BandJob::State BandPool::finish(const BandJob& job) {
    std::unique_lock lock(mutex_);
    while (job.state < BandJob::State::Done) {
        if (waiting_.empty()) {
            isDone_.wait(lock);
        } else {
            workOn(lock, ownCompressor_);
        }
    }
    return job.state;
}

void BandPool::work() {
    std::unique_ptr<BandCompressor> compressor;
    std::unique_lock lock(mutex_);
    for (;;) {
        isWork_.wait(lock, [this] { return isEnding_ || !waiting_.empty(); });
        if (isEnding_) return;
        workOn(lock, compressor);
    }
}

void BandPool::workOn(std::unique_lock<std::mutex>& lock,
                      std::unique_ptr<BandCompressor>& compressor) {
    const std::shared_ptr<BandJob> job = std::move(waiting_.front());
    waiting_.pop_front();
    job->state = BandJob::State::Running;
    lock.unlock();
    BandJob::State state = BandJob::State::Failed;
    try {
        if (!compressor) compressor = std::make_unique<BandCompressor>();
        if (auto compressed = compressor->compress(job->band)) {
            job->result = *std::move(compressed);
            state = BandJob::State::Done;
        }
    } catch (const std::bad_alloc&) {
        state = BandJob::State::OutOfMemory;
    }
    lock.lock();
    job->state = state;
    isDone_.notify_all();
}

}  // namespace utilia::platform::pdf
