#include "worker/webkit/EngineEnvironment.h"

#include <EGL/egl.h>
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

/// The engine crashes where the directory for its sockets cannot be used, as after a change of user, and
/// where the path of one gets too long, as it may in a home of the engine's own.
void replaceUnusableRuntimeDirectory(const std::string& cacheDirectory) {
    const char* directory = g_getenv("XDG_RUNTIME_DIR");
    const bool isUsable = directory != nullptr && g_file_test(directory, G_FILE_TEST_IS_DIR) &&
                          g_access(directory, W_OK | X_OK) == 0;
    if (!isUsable) g_setenv("XDG_RUNTIME_DIR", cacheDirectory.c_str(), TRUE);
}

/// Where X libraries look for it if nothing is said.
void nameKeyToDisplay() {
    const char* home = g_getenv("HOME");
    if (home == nullptr || g_getenv("XAUTHORITY") != nullptr) return;
    const GText key(g_build_filename(home, ".Xauthority", nullptr));
    if (g_file_test(key.get(), G_FILE_TEST_EXISTS)) g_setenv("XAUTHORITY", key.get(), TRUE);
}

/// The sandbox lets a page's process see, and in places change, what the libraries of the engine keep in the
/// home directory.
void moveTo(const std::string& home) {
    nameKeyToDisplay();
    g_setenv("HOME", home.c_str(), TRUE);
    for (const char* name : {"XDG_CACHE_HOME", "XDG_DATA_HOME"}) g_unsetenv(name);
    // The sandbox lets a page write into the folder that the registry of media plug-ins lies in, once there
    // is one. There never should be: nothing is to register, because there is no decoder, which is where
    // engines break most often, for sound and pictures that nobody hears or sees.
    const GText registry(g_build_filename(home.c_str(), "media", "registry.bin", nullptr));
    const GText plugins(g_build_filename(home.c_str(), "no-plugins", nullptr));
    g_setenv("GST_REGISTRY", registry.get(), TRUE);
    g_setenv("GST_PLUGIN_SYSTEM_PATH_1_0", plugins.get(), TRUE);
}

/// This process draws nothing, and a driver would be a quarter of its own memory and much foreign code
/// outside of the sandbox. The page's process ends itself when it finds none, though it does not use it
/// either; so drivers are hidden only while this process looks for them, which it does once, at the first
/// question.
void keepGraphicsDriversOut(const std::string& home) {
    constexpr const char* list_of_drivers = "__EGL_VENDOR_LIBRARY_FILENAMES";
    const GText none(g_build_filename(home.c_str(), "no-drivers", nullptr));
    g_setenv(list_of_drivers, none.get(), TRUE);
    eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS);
    g_unsetenv(list_of_drivers);
    // The toolkit would ask in another way.
    g_setenv("GDK_GL", "disable", TRUE);
}

}  // namespace

void prepareEngineEnvironment(const std::string& home, const std::string& cacheDirectory) {
    // Nobody looks at the hidden window: no bridge to screen readers, no settings daemon.
    g_setenv("NO_AT_BRIDGE", "1", TRUE);
    // The engine has a bridge of its own; without an address it would complain at each start of a page's
    // process.
    g_setenv("WEBKIT_A11Y_BUS_ADDRESS", "", TRUE);
    g_setenv("GSETTINGS_BACKEND", "memory", TRUE);
    // Nothing is drawn with it, and its cache would lie in the user's own home, whatever HOME says.
    g_setenv("MESA_SHADER_CACHE_DISABLE", "true", TRUE);
    // No service of the user's session has anything to say to a page's process, and without an address one
    // would be looked for or even started.
    g_setenv("DBUS_SESSION_BUS_ADDRESS", "disabled:", TRUE);
    // Else the sandbox lets the sound server's socket in, with which one can also listen.
    g_setenv("PULSE_SERVER", "disabled:", TRUE);
    nameWaylandSocketWithoutPath();
    replaceUnusableRuntimeDirectory(cacheDirectory);
    moveTo(home);
    keepGraphicsDriversOut(home);
}

void requireDisplay() {
    if (gtk_init_check(nullptr, nullptr)) return;
    throw Failure(
        "The built-in web worker needs a display and can reach neither an X server (DISPLAY) nor a Wayland compositor (WAYLAND_DISPLAY); start the parent in a desktop session or provide one, for example with Xvfb.");
}

}  // namespace brindle
