#include <dlfcn.h>

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "console/Doctor.h"
#include "system/ChildProcess.h"
#include "system/Paths.h"
#include "text/Failure.h"

namespace brindle::console {
namespace {

constexpr std::string_view module_name = "BrindleWebHost.so";
// The engine runs these very files, whatever PATH says.
constexpr std::string_view sandbox_program = "/usr/bin/bwrap";
constexpr std::string_view bus_proxy_program = "/usr/bin/xdg-dbus-proxy";

constexpr std::string_view sandbox_meaning =
    "The built-in worker refuses to show a page outside of a sandbox.";
constexpr std::string_view display_meaning = "The built-in worker has nowhere to lay its hidden page out.";

/// A missing part matters only to who needs it.
Finding missing(bool isNeeded, std::string_view point, std::string what, std::string_view meaning,
                std::string remedy) {
    return isNeeded
               ? Finding::problem(point, std::move(what), std::string(meaning), std::move(remedy))
               : Finding::note(point, std::move(what),
                               std::string(meaning) + " It is not switched on, though.", std::move(remedy));
}

/// Beside the helper, or where an installation has it.
std::optional<std::string> modulePath(const Examination& examination) {
    const auto directory = standardizedPath(joinedPath(examination.helper, ".."));
    const auto installed = standardizedPath(joinedPath(directory, BRINDLE_PRIVATE_LIBRARY_DIRECTORY));
    for (const auto& each : {directory, installed}) {
        auto path = joinedPath(each, module_name);
        if (examination.fileManager.fileExists(path)) return path;
    }
    return std::nullopt;
}

/// A function of the module or of a library that it brings.
template <class Function>
Function* functionIn(void* module, const char* name) {
    // POSIX lets a function's address pass through void*, for this very call.
    return reinterpret_cast<Function*>(::dlsym(module, name));
}

Finding engineFinding(void* module) {
    std::string version;
    for (const auto* part :
         {"webkit_get_major_version", "webkit_get_minor_version", "webkit_get_micro_version"}) {
        auto* function = functionIn<unsigned()>(module, part);
        if (function == nullptr) {
            return Finding::note("engine", "The engine does not tell its version.",
                                 "It may be an unusual one.", "Nothing, while the built-in worker works.");
        }
        version.append(version.empty() ? "" : ".").append(std::to_string(function()));
    }
    return Finding::ok("engine", "The engine is version " + version + ".");
}

std::string valueOrNone(const Environment& environment, std::string_view name) {
    const auto value = nonBlankValue(environment, name);
    return std::string(name) + (value ? "=" + *value : " is not set");
}

Finding displayFinding(const Examination& examination, void* module, bool isNeeded) {
    constexpr std::string_view point = "display";
    const auto variables = valueOrNone(examination.environment, "DISPLAY") + ", " +
                           valueOrNone(examination.environment, "WAYLAND_DISPLAY");
    // What the toolkit says itself is what counts.
    auto* connects = functionIn<int(int*, char***)>(module, "gtk_init_check");
    if (connects != nullptr && connects(nullptr, nullptr) != 0) {
        return Finding::ok(point, "A display can be reached (" + variables + ").");
    }
    return missing(
        isNeeded, point, "No display can be reached (" + variables + ").", display_meaning,
        "Start the parent in a desktop session, or with xvfb-run -a in front, which gives it a display.");
}

/// What the engine starts to keep a page apart, in short; nothing when it works.
std::optional<std::string> complaintAboutSandbox(const Examination& examination) {
    for (const auto program : {sandbox_program, bus_proxy_program}) {
        if (!examination.fileManager.isExecutableFile(std::string(program))) {
            return "the program " + std::string(program) + " is missing";
        }
    }
    try {
        const ChildProcess trial(
            {.executable = std::string(sandbox_program),
             .arguments = {"--die-with-parent", "--unshare-pid", "--unshare-uts", "--unshare-ipc",
                           "--ro-bind", "/", "/", "--proc", "/proc", "--dev", "/dev", "--", "/bin/true"}});
        const auto end = trial.waitForEnd();
        if (end == ProcessEnd::exit(0)) return std::nullopt;
        return "a trial of it " + end.description();
    } catch (const Failure& failure) {
        return "a trial of it could not be started: " + std::string(failure.what());
    }
}

Finding sandboxFinding(const Examination& examination, bool isNeeded) {
    constexpr std::string_view point = "sandbox";
    const auto complaint = complaintAboutSandbox(examination);
    if (!complaint) return Finding::ok(point, "Pages can be sandboxed.");
    return missing(
        isNeeded, point, "Pages cannot be sandboxed: " + *complaint + ".", sandbox_meaning,
        "Install the packages bubblewrap and xdg-dbus-proxy and let this user create user namespaces.");
}

}  // namespace

Findings examinedEngine(const Examination& examination, bool isNeeded) {
    constexpr std::string_view point = "module";
    constexpr std::string_view meaning = "The built-in worker cannot run.";
    const auto path = modulePath(examination);
    if (!path) {
        return {missing(isNeeded, point, "There is no " + std::string(module_name) + " with the helper.",
                        meaning, "Install the package with the built-in worker's engine module.")};
    }
    // Never unloaded: the engine's threads run until the process ends.
    void* module = ::dlopen(path->c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) {
        const char* reason = ::dlerror();  // NOLINT(concurrency-mt-unsafe): there is one thread.
        return {
            missing(isNeeded, point,
                    *path + " cannot be loaded: " + (reason != nullptr ? reason : "no reason given") + ".",
                    meaning, "Install the package libwebkit2gtk-4.1-0.")};
    }
    return {Finding::ok(point, "The engine module " + *path + " can be loaded."), engineFinding(module),
            displayFinding(examination, module, isNeeded), sandboxFinding(examination, isNeeded)};
}

}  // namespace brindle::console
