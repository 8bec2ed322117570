#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "Common/Platform/Image.h"

namespace utilia::tools {

// Saves a picture on a thread of its own. The file appears whole or not at all: what was there under its name stays until
// the new one is complete.
//
// Threads: the main thread, where both functions are called.
class ExportJob final {
public:
    struct Request {
        std::shared_ptr<platform::Image> image;  // left alone until the job has ended
        std::string path;
        std::optional<platform::BitmapImageFileType> type;  // a PDF document without one
        std::uint64_t pageHeight = 0;  // of its pages, in pixels; 0 for one page
    };
    enum class Outcome { Saved, Cancelled, Failed };

    // `progressed` gets the percentage that is done, `ended` what became of it, with the reason when it failed.
    ExportJob(Request request, std::function<void(int percent)> progressed,
              std::function<void(Outcome, const std::string& reason)> ended);
    // Ends the work without a call of `ended`; waits for as long as the work takes notice.
    ~ExportJob();
    ExportJob(const ExportJob&) = delete;
    ExportJob& operator=(const ExportJob&) = delete;

    void cancel();

private:
    struct State;
    static void work(const std::shared_ptr<State>& state);

    std::shared_ptr<State> state_;
    std::thread thread_;
};

}  // namespace utilia::tools
