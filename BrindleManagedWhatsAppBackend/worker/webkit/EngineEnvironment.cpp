#include "worker/webkit/EngineEnvironment.h"

#include <gio/gio.h>
#include <glib/gstdio.h>
#include <gtk/gtk.h>
#include <unistd.h>

#include "text/Failure.h"
#include "worker/webkit/GObjectPointer.h"

namespace brindle {
namespace {

/// The engine's sandbox lets a Wayland socket in only by its name in the runtime directory, and crashes where
/// the socket is given by a path.
void nameWaylandSocketWithoutPath() {
    const char* socket = g_getenv("WAYLAND_DISPLAY");
    if (socket == nullptr || !g_path_is_absolute(socket)) return;
    const GText directory(g_path_get_dirname(socket));
    const GText name(g_path_get_basename(socket));
    g_setenv("XDG_RUNTIME_DIR", directory.get(), TRUE);
    g_setenv("WAYLAND_DISPLAY", name.get(), TRUE);
}

/// The engine crashes where the directory for its sockets cannot be used, as after a change of user. Without
/// the variable it takes the cache directory.
void forgetUnusableRuntimeDirectory() {
    const char* directory = g_getenv("XDG_RUNTIME_DIR");
    if (directory == nullptr) return;
    if (!g_file_test(directory, G_FILE_TEST_IS_DIR) || g_access(directory, W_OK | X_OK) != 0) {
        g_unsetenv("XDG_RUNTIME_DIR");
    }
}

/// Where the session has no message bus, asking for it starts one, which nobody would ever end.
void startNoMessageBus() {
    if (g_getenv("DBUS_SESSION_BUS_ADDRESS") != nullptr) return;
    const GText socket(g_build_filename(g_get_user_runtime_dir(), "bus", nullptr));
    if (!g_file_test(socket.get(), G_FILE_TEST_EXISTS)) {
        g_setenv("DBUS_SESSION_BUS_ADDRESS", "disabled:", TRUE);
    }
}

}  // namespace

void prepareEngineEnvironment() {
    // Nobody looks at the hidden window: no bridge to screen readers, no settings daemon, no user's modules.
    g_setenv("NO_AT_BRIDGE", "1", TRUE);
    g_setenv("GSETTINGS_BACKEND", "memory", TRUE);
    g_unsetenv("GTK_MODULES");
    nameWaylandSocketWithoutPath();
    forgetUnusableRuntimeDirectory();
    startNoMessageBus();
    // Each of these lets the engine run pages without a sandbox; a parent may pass them on unknowingly.
    g_unsetenv("WEBKIT_DISABLE_SANDBOX_THIS_IS_DANGEROUS");
    g_unsetenv("SNAP");
}

void requireDisplay() {
    if (gtk_init_check(nullptr, nullptr)) return;
    throw Failure(
        "The built-in web worker needs a display and can reach neither an X server (DISPLAY) nor a Wayland compositor (WAYLAND_DISPLAY); start the parent in a desktop session or provide one, for example with Xvfb.");
}

}  // namespace brindle
