#include "support/EnginePage.h"

#include <dlfcn.h>
#include <glib.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>
#include <utility>

#include "support/Environment.h"
#include "support/Executables.h"
#include "support/Sanitizers.h"
#include "support/TemporaryDirectory.h"
#include "support/TestDisplay.h"
#include "support/Waiting.h"
#include "system/Environment.h"
#include "system/FileManager.h"
#include "worker/WebsiteDataFolders.h"

namespace brindle::test {
namespace {

/// Skips every test of the program where the engine cannot be run.
class EngineEnvironment final : public testing::Environment {
  public:
    void SetUp() override {
        if (sanitizerOfExecutables() == Sanitizer::thread) GTEST_SKIP() << engine_is_not_instrumented;
    }
};

// GoogleTest owns it.
const auto* const engine_environment = testing::AddGlobalTestEnvironment(new EngineEnvironment);

/// Where the engine keeps what is its process's and no page's. It remembers the first such directory for as
/// long as the process lives, so that must not be a page's.
const TemporaryDirectory& runtimeDirectory() {
    static const TemporaryDirectory directory;
    return directory;
}

MakeWebWorkerHost loadModule() {
    void* module = ::dlopen(webHostModule().c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) throw TestFailure(::dlerror());
    void* symbol = ::dlsym(module, make_web_worker_host_symbol);
    if (symbol == nullptr) throw TestFailure(::dlerror());
    return reinterpret_cast<MakeWebWorkerHost>(symbol);
}

}  // namespace

EnginePage::EnginePage(std::shared_ptr<TemporaryDirectory> directory, const WebWorkerHostOptions& options)
    : directory_(std::move(directory)) {
    TestDisplay::shared().use();
    ::setenv("XDG_RUNTIME_DIR", runtimeDirectory().path().c_str(), 1);
    ::setenv("XDG_DATA_HOME", dataDirectory().c_str(), 1);
    ::setenv("XDG_CACHE_HOME", cacheDirectory().c_str(), 1);
    auto withFolders = options;
    PosixFileManager fileManager;
    withFolders.folders = makeWebsiteDataFolders(options.applicationName, currentEnvironment(), fileManager);
    host_ = loadModule()(withFolders);
    page_ = host_->openPage(*this);
}

EnginePage::~EnginePage() = default;

void EnginePage::load(const std::string& html) {
    forgetEvents();
    page_->loadText(html, directory_->path());
    runUntil([&] { return events_.finished > 0; }, "the document has been loaded");
}

void EnginePage::loadAddress(const std::string& address) {
    forgetEvents();
    page_->loadAddress(address, must_happen_deadline);
    const auto failed = [&] { return !events_.failures.empty() || !events_.provisionalFailures.empty(); };
    runUntil([&] { return events_.finished > 0 || failed(); }, "the address has been loaded");
    if (failed()) throw std::runtime_error("cannot load " + address);
}

std::optional<std::string> EnginePage::evaluate(const std::string& script) {
    // Shared with the callback, which may come after this test gave up.
    const auto outcome = std::make_shared<std::optional<EvaluationOutcome>>();
    page_->evaluate(script, [outcome](EvaluationOutcome result) { *outcome = std::move(result); });
    runUntil([&] { return outcome->has_value(); }, "the script answers");
    if ((*outcome)->error) throw std::runtime_error(*(*outcome)->error);
    return (*outcome)->value;
}

void EnginePage::waitUntil(const std::string& expression, std::chrono::seconds patience) {
    const std::string script = "(" + expression + ") === true ? 'true' : 'false'";
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (evaluate(script) != "true") {
        if (std::chrono::steady_clock::now() > deadline) throw TestFailure("never held: " + expression);
    }
}

void EnginePage::runUntil(const std::function<bool()>& condition, const std::string& what,
                          std::chrono::seconds patience) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    // Wakes the loop now and then, so that the deadline is noticed when nothing else happens.
    const auto alarm = host_->repeat(std::chrono::milliseconds(50), std::chrono::milliseconds(0), [] {});
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) throw TestFailure("did not happen in time: " + what);
        g_main_context_iteration(nullptr, TRUE);
    }
}

}  // namespace brindle::test
