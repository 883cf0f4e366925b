#include "worker/webkit/WebKitHost.h"

#include <glib-unix.h>
#include <signal.h>

#include <filesystem>
#include <utility>

#include "text/Failure.h"
#include "worker/webkit/EngineEnvironment.h"
#include "worker/webkit/InteractionDenial.h"
#include "worker/webkit/MainLoopTimer.h"
#include "worker/webkit/SandboxCheck.h"
#include "worker/webkit/WebKitPage.h"

namespace brindle {
namespace {

/// They end the worker.
constexpr std::array end_signals{SIGTERM, SIGINT, SIGHUP};
/// Far more than the engine needs to let go, should something keep the main loop busy for ever.
constexpr int most_last_turns = 1000;

GObjectPointer<WebKitWebsiteDataManager> openWebsiteData(const WebsiteDataFolders& folders) {
    GObjectPointer<WebKitWebsiteDataManager> manager(webkit_website_data_manager_new(
        "base-data-directory", folders.data.c_str(), "base-cache-directory", folders.cache.c_str(), nullptr));
    // Passwords of pages are none of the worker's business.
    webkit_website_data_manager_set_persistent_credential_storage_enabled(manager.get(), FALSE);
    const GText cookies(g_build_filename(folders.data.c_str(), "cookies.sqlite", nullptr));
    webkit_cookie_manager_set_persistent_storage(
        webkit_website_data_manager_get_cookie_manager(manager.get()), cookies.get(),
        WEBKIT_COOKIE_PERSISTENT_STORAGE_SQLITE);
    return manager;
}

struct MemoryPressureSettingsFree {
    void operator()(WebKitMemoryPressureSettings* settings) const {
        webkit_memory_pressure_settings_free(settings);
    }
};
using MemoryPressureSettings = std::unique_ptr<WebKitMemoryPressureSettings, MemoryPressureSettingsFree>;

GObjectPointer<WebKitWebContext> makeContext(const WebWorkerHostOptions& options) {
    const auto manager = openWebsiteData(options.folders);
    // The page's process looks at itself rarely, and gives back what it can before the limit is reached. The
    // page watches it more closely.
    constexpr double at_the_limit = 1.0;
    const MemoryPressureSettings memory(webkit_memory_pressure_settings_new());
    webkit_memory_pressure_settings_set_memory_limit(memory.get(), options.pageMemoryLimit_mebibytes);
    webkit_memory_pressure_settings_set_kill_threshold(memory.get(), at_the_limit);
    GObjectPointer<WebKitWebContext> context(
        WEBKIT_WEB_CONTEXT(g_object_new(WEBKIT_TYPE_WEB_CONTEXT, "website-data-manager", manager.get(),
                                        "memory-pressure-settings", memory.get(), nullptr)));
    webkit_web_context_set_sandbox_enabled(context.get(), TRUE);
    // One page that is never left needs no store of decoded resources.
    webkit_web_context_set_cache_model(context.get(), WEBKIT_CACHE_MODEL_DOCUMENT_VIEWER);
    denyDownloads(*context);
    return context;
}

gboolean endHost(gpointer host) {
    static_cast<WebKitHost*>(host)->end();
    return G_SOURCE_CONTINUE;
}

gboolean ignoreSignal(gpointer /*data*/) {
    return G_SOURCE_CONTINUE;
}

}  // namespace

WebKitHost::WebKitHost(const WebWorkerHostOptions& options)
    : options_(options), log_(options.logSubsystem, options.logCategory), home_(options.folders.cache) {
    prepareEngineEnvironment(home_.path(), std::filesystem::path(options.folders.cache).parent_path());
    requireDisplay();
    requireSandbox();
    g_set_prgname(options.applicationName.c_str());
    context_ = makeContext(options);
    for (std::size_t index = 0; index < end_signals.size(); ++index) {
        GSource* source = g_unix_signal_source_new(end_signals.at(index));
        g_source_set_callback(source, endHost, this, nullptr);
        g_source_attach(source, nullptr);
        signalSources_.at(index) = source;
    }
}

WebKitHost::~WebKitHost() {
    // The end is under way; asking for it again must not cut it short. The sources stay attached: a signal
    // that loses its last one gets its default action back, if only for a moment.
    for (GSource* source : signalSources_) {
        g_source_set_callback(source, ignoreSignal, nullptr, nullptr);
        g_source_unref(source);
    }
    context_.reset();
    // The engine lets go of its processes in what it has left for the main loop to do; only then do these
    // store what they still hold, such as a login of the last second.
    for (int turn = 0; turn < most_last_turns && g_main_context_iteration(nullptr, FALSE) != FALSE; ++turn) {
    }
}

std::unique_ptr<WebPage> WebKitHost::openPage(WebPageDelegate& delegate) {
    return std::make_unique<WebKitPage>(options_, *context_, log_, delegate);
}

std::unique_ptr<HostTimer> WebKitHost::repeat(std::chrono::milliseconds interval,
                                              std::chrono::milliseconds tolerance,
                                              std::function<void()> tick) {
    return std::make_unique<MainLoopTimer>(
        MainLoopTimer::Schedule{.interval = interval, .tolerance = tolerance, .repeats = true},
        std::move(tick));
}

std::unique_ptr<HostTimer> WebKitHost::once(std::chrono::milliseconds delay, std::function<void()> action) {
    return std::make_unique<MainLoopTimer>(MainLoopTimer::Schedule{.interval = delay}, std::move(action));
}

void WebKitHost::run() {
    // Not g_main_loop_run, which forgets an end that was asked for before it.
    while (!hasEnded_) g_main_context_iteration(nullptr, TRUE);
}

void WebKitHost::end() {
    hasEnded_ = true;
    g_main_context_wakeup(nullptr);
}

void WebKitHost::logError(const std::string& message) {
    log_.error(message);
}

}  // namespace brindle

extern "C" __attribute__((visibility("default"))) std::unique_ptr<brindle::WebWorkerHost>
brindleMakeWebWorkerHost(const brindle::WebWorkerHostOptions& options) {
    return std::make_unique<brindle::WebKitHost>(options);
}
