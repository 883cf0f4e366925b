#pragma once

#include <gtk/gtk.h>

#include <memory>
#include <string>

namespace brindle {

struct WidgetDestroy {
    void operator()(GtkWidget* widget) const { gtk_widget_destroy(widget); }
};

using WidgetPointer = std::unique_ptr<GtkWidget, WidgetDestroy>;

/// An offscreen window that never draws what it holds, though its content is as visible, as large and as
/// often due for a frame as in any other. Not shown yet.
WidgetPointer makeUndrawnWindow(const std::string& title);

}  // namespace brindle
