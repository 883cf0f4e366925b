#include "worker/webkit/SandboxCheck.h"

#include <gio/gio.h>

#include <algorithm>
#include <array>
#include <string>

#include "text/Failure.h"
#include "worker/webkit/GObjectPointer.h"

namespace brindle {
namespace {

// The engine runs these very files, whatever PATH says.
constexpr const char* sandbox_program = "/usr/bin/bwrap";
constexpr const char* bus_proxy_program = "/usr/bin/xdg-dbus-proxy";

constexpr const char* sandbox_advice =
    "install the packages bubblewrap and xdg-dbus-proxy and let this user create user namespaces";

[[noreturn]] void failWithoutSandbox(const std::string& reason) {
    throw Failure("The built-in web worker cannot sandbox the web page: " + reason + "; " + sandbox_advice +
                  ".");
}

void requireProgram(const char* program) {
    if (!g_file_test(program, G_FILE_TEST_IS_EXECUTABLE)) {
        failWithoutSandbox(std::string("the program ") + program + " is missing");
    }
}

std::string firstLine(const char* text) {
    std::string line(text == nullptr ? "" : text);
    line.resize(std::min(line.find('\n'), line.size()));
    return line;
}

/// The engine quietly leaves the sandbox out where a trial like this one fails.
void requireWorkingNamespaces() {
    const std::array<const char*, 15> command{sandbox_program,
                                              "--die-with-parent",
                                              "--unshare-pid",
                                              "--unshare-uts",
                                              "--unshare-ipc",
                                              "--ro-bind",
                                              "/",
                                              "/",
                                              "--proc",
                                              "/proc",
                                              "--dev",
                                              "/dev",
                                              "--",
                                              "/bin/true",
                                              nullptr};
    GError* error = nullptr;
    const GObjectPointer<GSubprocess> trial(g_subprocess_newv(
        command.data(),
        static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDERR_PIPE | G_SUBPROCESS_FLAGS_STDOUT_SILENCE),
        &error));
    const GErrorPointer owned(error);
    if (!trial) failWithoutSandbox(error->message);
    // Its end alone: when it is killed, what it has started may keep its output open for ever.
    g_subprocess_wait(trial.get(), nullptr, nullptr);
    if (g_subprocess_get_if_signaled(trial.get())) {
        failWithoutSandbox("the trial of it was ended by signal " +
                           std::to_string(g_subprocess_get_term_sig(trial.get())));
    }
    char* complaint = nullptr;
    g_subprocess_communicate_utf8(trial.get(), nullptr, nullptr, nullptr, &complaint, nullptr);
    const GText text(complaint);
    if (!g_subprocess_get_successful(trial.get())) failWithoutSandbox(firstLine(complaint));
}

}  // namespace

void requireSandbox() {
    if (g_file_test("/.flatpak-info", G_FILE_TEST_EXISTS)) {
        failWithoutSandbox("the engine does not set one up inside a Flatpak");
    }
    requireProgram(sandbox_program);
    requireProgram(bus_proxy_program);
    requireWorkingNamespaces();
}

}  // namespace brindle
