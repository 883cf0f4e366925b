#include "worker/webkit/UndrawnWindow.h"

namespace brindle {
namespace {

void stopDrawing(GtkWidget* window, gpointer /*data*/) {
    gdk_window_freeze_updates(gtk_widget_get_window(window));
}

}  // namespace

WidgetPointer makeUndrawnWindow(const std::string& title) {
    WidgetPointer window(gtk_offscreen_window_new());
    gtk_window_set_title(GTK_WINDOW(window.get()), title.c_str());
    // Nobody reads the picture. Sizes and the engine's frames come as before: the engine has its own clock
    // for these.
    g_signal_connect_after(window.get(), "realize", G_CALLBACK(stopDrawing), nullptr);
    return window;
}

}  // namespace brindle
