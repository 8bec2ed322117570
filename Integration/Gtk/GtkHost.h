#pragma once

#include <string>
#include <vector>

#include <gtk/gtk.h>

#include "Common/Platform/Application.h"

namespace utilia::integration {

// Makes a GtkApplication (GTK 4) an application of the suite:
//
//     int main(int argc, char** argv) {
//         GtkApplication* const gtk = gtk_application_new("com.korvane.utilia.Sample", {});
//         g_signal_connect(gtk, "activate", G_CALLBACK(showWindow), nullptr);
//         utilia::integration::GtkHost host(gtk);
//         return host.run(argc, argv);
//     }
//
// - Life cycle: there is one instance for each bundle, as platform::Application makes it. GTK's own uniqueness, which
//   needs a session bus, is switched off. GTK serves the main loop of the framework, so ports and timers need nothing.
// - End: the application terminates in an orderly way when GTK ends it (the last window is closed, or
//   g_application_quit()), and GTK ends it when the framework does (a signal, the agent, terminate()). Will-terminate is
//   posted before GTK takes the application down.
// - Reopening (a click on the menu icon, a second start) emits "activate", as GTK programs expect of a second start. An
//   application that wants to know more sets a delegate of its own with Application::setDelegate().
// - Windows: one that is shown and not minimized is visible; activating brings the one last used to the front.
//
// A tool that lives without a window calls g_application_hold(), as with GTK alone.
//
// Header-only: GTK is linked by the tool, never by the framework. Threads: the main thread.
class GtkHost final : private platform::ApplicationDelegate {
public:
    // Holds a reference to `application`, which does not run yet. There is one host at a time.
    explicit GtkHost(GtkApplication* application)
        : application_(GTK_APPLICATION(g_object_ref(application))) {
        GApplication* const base = G_APPLICATION(application_);
        g_application_set_flags(base, static_cast<GApplicationFlags>(g_application_get_flags(base) |
                                                                     G_APPLICATION_NON_UNIQUE));
        startup_ = g_signal_connect(application_, "startup", G_CALLBACK(&didStartUp), nullptr);
        shutdown_ = g_signal_connect(application_, "shutdown", G_CALLBACK(&willShutDown), nullptr);
        auto& host = platform::Application::sharedApplication();
        if (!host.delegate()) host.setDelegate(this);
        host.setQuitHandler([base] { g_application_quit(base); });
        host.setWindowsVisibleHandler([] { return visibleWindow() != nullptr; });
        host.setActivateHandler([this] { bringToFront(); });
    }

    ~GtkHost() override {
        auto& host = platform::Application::sharedApplication();
        if (host.delegate() == this) host.setDelegate(nullptr);
        host.setQuitHandler(nullptr);
        host.setWindowsVisibleHandler(nullptr);
        host.setActivateHandler(nullptr);
        g_signal_handler_disconnect(application_, startup_);
        g_signal_handler_disconnect(application_, shutdown_);
        g_object_unref(application_);
    }

    GtkHost(const GtkHost&) = delete;
    GtkHost& operator=(const GtkHost&) = delete;

    // Becomes the one instance, or hands the arguments over to it and ends the process with status
    // 0, before GTK opens a display; then runs GTK to its end. Answers GTK's exit status.
    int run(int argc, char** argv) {
        auto& host = platform::Application::sharedApplication();
        host.finishLaunching();
        // GTK is not told of an end before its loop, nor of the switch that asks for one.
        if (host.isTerminating() || host.isLaunchedToTerminate()) return host.run();
        return g_application_run(G_APPLICATION(application_), argc, argv);
    }

private:
    bool applicationShouldHandleReopen(bool, const std::vector<std::string>&) override {
        g_application_activate(G_APPLICATION(application_));
        return true;
    }

    static void didStartUp(GApplication*, gpointer) {
        platform::Application::sharedApplication().finishLaunching();
    }
    static void willShutDown(GApplication*, gpointer) {
        platform::Application::sharedApplication().terminate();
    }

    static bool isVisible(GtkWindow* window) {
        if (!gtk_widget_get_mapped(GTK_WIDGET(window))) return false;
        GdkSurface* const surface = gtk_native_get_surface(GTK_NATIVE(window));
        return GDK_IS_TOPLEVEL(surface) &&
               (gdk_toplevel_get_state(GDK_TOPLEVEL(surface)) & GDK_TOPLEVEL_STATE_MINIMIZED) == 0;
    }

    static GtkWindow* visibleWindow() {
        GListModel* const windows = gtk_window_get_toplevels();
        for (guint i = 0; i < g_list_model_get_n_items(windows); ++i) {
            // The list keeps its windows.
            auto* const window = static_cast<GtkWindow*>(g_list_model_get_item(windows, i));
            g_object_unref(window);
            if (isVisible(window)) return window;
        }
        return nullptr;
    }

    // A window that is hidden stays hidden: showing it is the business of whoever handles the reopen.
    void bringToFront() const {
        GtkWindow* window = gtk_application_get_active_window(application_);
        if (!window || !gtk_widget_get_mapped(GTK_WIDGET(window))) window = visibleWindow();
        if (window) gtk_window_present(window);
    }

    GtkApplication* application_;
    gulong startup_ = 0;
    gulong shutdown_ = 0;
};

}  // namespace utilia::integration
