#include "entry/WebHostModule.h"

#include <dlfcn.h>

#include <unistd.h>
#include <string>

#include "system/Paths.h"
#include "text/Failure.h"
#include "text/Text.h"

namespace brindle {
namespace {

constexpr const char* module_name = "BrindleWebHost.so";
// Relative to the directory of the executable, so that an installation can be moved.
constexpr const char* private_library_directory = BRINDLE_PRIVATE_LIBRARY_DIRECTORY;

[[noreturn]] void failWithoutModule(const std::string& place) {
    throw Failure("The built-in web worker needs its engine module, and there is no " + place +
                  "; install the program again or copy " + module_name + " beside it.");
}

std::string modulePath() {
    const auto executable = MainBundle::current().executablePath;
    if (!executable) failWithoutModule(module_name);
    const std::string directory = standardizedPath(joinedPath(*executable, ".."));
    std::string beside = joinedPath(directory, module_name);
    if (::access(beside.c_str(), R_OK) == 0) return beside;
    std::string installed =
        standardizedPath(joinedPath(joinedPath(directory, private_library_directory), module_name));
    if (::access(installed.c_str(), R_OK) == 0) return installed;
    failWithoutModule(beside + " or " + installed);
}

[[noreturn]] void failToLoad() {
    const char* reason = ::dlerror();  // NOLINT(concurrency-mt-unsafe): there is one thread yet.
    throw Failure("The built-in web worker's engine cannot be loaded (" +
                  singleLine(reason == nullptr ? "no reason given" : reason) +
                  "); install the package libwebkit2gtk-4.1-0.");
}

}  // namespace

std::unique_ptr<WebWorkerHost> makeWebWorkerHost(const WebWorkerHostOptions& options) {
    // Never unloaded: the engine's threads run until the process ends.
    void* module = ::dlopen(modulePath().c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) failToLoad();
    void* symbol = ::dlsym(module, make_web_worker_host_symbol);
    if (symbol == nullptr) failToLoad();
    // POSIX lets a function's address pass through void*, for this very call.
    return reinterpret_cast<MakeWebWorkerHost>(symbol)(options);
}

}  // namespace brindle
