#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Applications/Tools/Desktop/Gio.h"

namespace utilia::tools {

// Has the desktop take a picture of the screen (org.freedesktop.portal.Screenshot), which asks the user what of it.
//
// Threads: the main thread, whose loop it needs. Nothing here waits for an answer.
class ScreenshotPortal final {
public:
    enum class Outcome { Taken, Cancelled, Failed };
    struct Answer {
        Outcome outcome = Outcome::Failed;
        std::string text;  // the picture's path when it was taken, the reason when it failed
    };

    // `answered` is called once for each capture(), never inside it.
    explicit ScreenshotPortal(std::function<void(const Answer&)> answered);
    ~ScreenshotPortal();
    ScreenshotPortal(const ScreenshotPortal&) = delete;
    ScreenshotPortal& operator=(const ScreenshotPortal&) = delete;

    // Does nothing while an answer is awaited.
    void capture();
    bool isCapturing() const { return isCapturing_; }

private:
    void connected(GDBusConnection* bus, GioError& error);
    void called(GVariant* reply, GioError& error);
    void listen(const std::string& request);
    void responded(guint32 response, GVariant* results);
    void end(Outcome outcome, const std::string& text);
    void stopListening();

    const std::function<void(const Answer&)> answered_;
    std::shared_ptr<ScreenshotPortal*> self_ = std::make_shared<ScreenshotPortal*>(this);
    bool isCapturing_ = false;
    unsigned requests_ = 0;
    std::string request_;  // the object that answers
    ObjectPointer<GDBusConnection> bus_;
    guint subscription_ = 0;
    guint watch_ = 0;
};

}  // namespace utilia::tools
