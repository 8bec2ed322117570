// A tool with a GTK 4 window, as somebody writes one. It tells the test on descriptor
// 3 what happens to it.

#include <cstdio>
#include <string>
#include <vector>

#include "Common/Platform/NotificationCenter.h"
#include "Common/Platform/RunLoop.h"
#include "Common/UtiliaCommon/ToolDataProvider/ToolDataClientProvider.h"
#include "Common/UtiliaCommon/UtiliaCommon.h"
#include "Integration/Gtk/GtkHost.h"

namespace {

using utilia::platform::Application;

void tell(const std::string& line) { dprintf(3, "%s\n", line.c_str()); }

class Delegate final : public utilia::platform::ApplicationDelegate {
public:
    bool applicationShouldHandleReopen(bool hasVisibleWindows,
                                       const std::vector<std::string>& arguments) override {
        std::string line =
            std::string("reopen, windows visible: ") + (hasVisibleWindows ? "yes" : "no");
        for (const auto& argument : arguments) line += ' ' + argument;
        tell(line);
        return true;
    }
};

void activated(GtkApplication* application, gpointer) {
    tell(std::string("activate, windows visible: ") +
         (Application::sharedApplication().hasVisibleWindows() ? "yes" : "no"));
    GtkWindow* window = gtk_application_get_active_window(application);
    if (!window) {
        window = GTK_WINDOW(gtk_application_window_new(application));
        gtk_window_set_title(window, "GTK tool");
        gtk_window_set_default_size(window, 240, 120);
        gtk_window_set_hide_on_close(window, g_getenv("KEEP_WINDOW") != nullptr);
    }
    gtk_window_present(window);
}

}  // namespace

int main(int argc, char** argv) {
    GtkApplication* const gtk =
        gtk_application_new("com.korvane.utilia.GtkTool", G_APPLICATION_HANDLES_OPEN);
    g_signal_connect(gtk, "activate", G_CALLBACK(activated), nullptr);
    int status = 0;
    {
        utilia::integration::GtkHost host(gtk);
        Delegate delegate;
        if (g_getenv("OWN_DELEGATE")) Application::sharedApplication().setDelegate(&delegate);
        auto& client = utilia::UtiliaCommon::toolDataClientProvider();
        client.setMenuText("ready");
        client.setToolStatus(utilia::kToolStatusPermanent);
        const auto ending = utilia::platform::NotificationCenter::defaultCenter().addObserver(
            utilia::platform::NSApplicationWillTerminateNotification, nullptr,
            [](const void*) { tell("will terminate"); });
        utilia::platform::MainQueue::async([] { tell("served"); });
        status = host.run(argc, argv);
        if (g_getenv("OWN_DELEGATE")) Application::sharedApplication().setDelegate(nullptr);
    }
    g_object_unref(gtk);
    tell("ended");
    return status;
}
