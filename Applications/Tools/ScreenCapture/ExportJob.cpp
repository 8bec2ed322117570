#include "Applications/Tools/ScreenCapture/ExportJob.h"

#include <utility>

#include "Common/Platform/FileManager.h"
#include "Common/Platform/RunLoop.h"
#include "Common/UtiliaCommon/Auxiliary/ImageExport.h"

namespace utilia::tools {

// Shared with the thread, and with calls that wait in the main loop's queue.
struct ExportJob::State {
    Request request;
    std::function<void(int)> progressed;
    std::function<void(Outcome, const std::string&)> ended;
    std::atomic<bool> isCancelled = false;
    std::atomic<int> percent = 0;
    std::atomic<bool> tells = false;  // a call of `progressed` is on its way
    bool isOver = false;              // main thread: nothing is called any more
};

ExportJob::ExportJob(Request request, std::function<void(int)> progressed,
                     std::function<void(Outcome, const std::string&)> ended)
    : state_(std::make_shared<State>()) {
    state_->request = std::move(request);
    state_->progressed = std::move(progressed);
    state_->ended = std::move(ended);
    thread_ = std::thread([state = state_] { work(state); });
}

ExportJob::~ExportJob() {
    state_->isOver = true;
    cancel();
    thread_.join();
}

void ExportJob::cancel() { state_->isCancelled = true; }

void ExportJob::work(const std::shared_ptr<State>& state) {
    const auto progress = [&state](double done) {
        const int percent = static_cast<int>(done * 100);
        // One call at a time is on its way, however fast the work goes on.
        if (state->percent.exchange(percent) != percent && !state->tells.exchange(true)) {
            platform::MainQueue::async([state] {
                state->tells = false;
                if (!state->isOver) state->progressed(state->percent);
            });
        }
        return !state->isCancelled;
    };
    const Request& request = state->request;
    const auto data = request.type ? exportedBitmap(request.image, *request.type, progress)
                                   : exportedPDF(request.image, request.pageHeight, progress);
    Outcome outcome = Outcome::Saved;
    std::string reason;
    if (state->isCancelled) {
        outcome = Outcome::Cancelled;
    } else if (!data) {
        outcome = Outcome::Failed;
        reason = data.error().description;
    } else if (const auto written = platform::FileManager::writeAtomically(request.path, *data);
               !written) {
        outcome = Outcome::Failed;
        reason = written.error().description;
    }
    platform::MainQueue::async([state, outcome, reason] {
        if (!state->isOver) state->ended(outcome, reason);
    });
}

}  // namespace utilia::tools
