#include "worker/webkit/WebKitPage.h"

#include <utility>

#include "text/WithoutFailing.h"
#include "worker/webkit/InteractionDenial.h"
#include "worker/webkit/OneLine.h"
#include "worker/webkit/PageSettings.h"
#include "worker/webkit/Urls.h"

namespace brindle {
namespace {

/// What a page throws or names may be of any length, and is published.
constexpr std::size_t longest_sentence_bytes = 2000;

/// Longer than everything that a page keeps of an honest day. What is longer a page has made up, and taking
/// it to pieces would keep the worker from everything else.
constexpr std::size_t longest_answer_bytes = std::size_t{16} << 20U;

/// For so long no further denial is logged after one was.
constexpr std::chrono::seconds denial_pause{1};

constexpr const char* too_much_memory = "The page's process used too much memory and was ended.";
constexpr const char* too_much_memory_here =
    "The page made the worker use too much memory, so its process was ended.";

constexpr unsigned bits_of_a_mebibyte = 20;

/// One sentence, for people.
std::string sentence(const GError& error) {
    std::string text = oneLine(textOf(error.message), longest_sentence_bytes);
    if (text.empty()) text = "The engine gives no reason";
    if (!text.ends_with('.')) text += '.';
    return text;
}

/// An address, which a page may have chosen, as a part of a sentence.
std::string shown(const std::string& address) {
    return oneLine(address, longest_sentence_bytes);
}

std::string describeDeparture(const std::string& address) {
    return "The page tried to leave its site for " + shown(address) + ", which is denied.";
}

const char* describe(WebKitWebProcessTerminationReason reason) {
    switch (reason) {
        case WEBKIT_WEB_PROCESS_EXCEEDED_MEMORY_LIMIT:
            return too_much_memory;
        case WEBKIT_WEB_PROCESS_TERMINATED_BY_API:
            return "The page's process was ended.";
        case WEBKIT_WEB_PROCESS_CRASHED:
            break;
    }
    return "The page's process crashed or was killed.";
}

WebKitWebView* makeView(const WebWorkerHostOptions& options, WebKitWebContext& context) {
    const auto settings = pageSettings(options);
    auto* view = WEBKIT_WEB_VIEW(g_object_new(WEBKIT_TYPE_WEB_VIEW, "web-context", &context, "settings",
                                              settings.get(), "is-muted", TRUE, nullptr));
    gtk_widget_set_size_request(GTK_WIDGET(view), options.contentWidth_px, options.contentHeight_px);
    return view;
}

EvaluationOutcome outcomeOf(JSCValue& value) {
    if (!jsc_value_is_string(&value)) return {};
    const GBytesPointer bytes(jsc_value_to_string_as_bytes(&value));
    gsize size = 0;
    const auto* data = static_cast<const char*>(g_bytes_get_data(bytes.get(), &size));
    EvaluationOutcome outcome;
    if (size > longest_answer_bytes) {
        outcome.error = "The page's answer is too long.";
    } else {
        outcome.value = std::string(data == nullptr ? "" : data, size);
    }
    return outcome;
}

using EvaluationCallback = std::function<void(EvaluationOutcome)>;

void evaluationDone(GObject* view, GAsyncResult* result, gpointer data) {
    const std::unique_ptr<EvaluationCallback> done(static_cast<EvaluationCallback*>(data));
    GError* error = nullptr;
    const GObjectPointer<JSCValue> value(
        webkit_web_view_evaluate_javascript_finish(WEBKIT_WEB_VIEW(view), result, &error));
    const GErrorPointer owned(error);
    // The main loop knows no exceptions; a script without an answer has its time limit.
    withoutFailing([&] {
        (*done)(value ? outcomeOf(*value)
                      : EvaluationOutcome{.value = std::nullopt, .error = sentence(*error)});
    });
}

/// A removal of all website data. The engine reports every one as done, even when the process that should
/// have done it died meanwhile, so what is left is looked up, and removed again.
struct Removal {
    std::function<void(bool isGone)> done;
    int attempts = 0;
};

constexpr int most_removal_attempts = 3;

void removeData(WebKitWebsiteDataManager* manager, std::unique_ptr<Removal> removal);

void remainsListed(GObject* source, GAsyncResult* result, gpointer data) {
    std::unique_ptr<Removal> removal(static_cast<Removal*>(data));
    auto* manager = WEBKIT_WEBSITE_DATA_MANAGER(source);
    GError* error = nullptr;
    GList* remains = webkit_website_data_manager_fetch_finish(manager, result, &error);
    const GErrorPointer owned(error);
    const bool isGone = remains == nullptr && !owned;
    g_list_free_full(remains,
                     [](gpointer item) { webkit_website_data_unref(static_cast<WebKitWebsiteData*>(item)); });
    if (!isGone && removal->attempts < most_removal_attempts) return removeData(manager, std::move(removal));
    removal->done(isGone);
}

void dataRemoved(GObject* source, GAsyncResult* result, gpointer removal) {
    auto* manager = WEBKIT_WEBSITE_DATA_MANAGER(source);
    webkit_website_data_manager_clear_finish(manager, result, nullptr);
    webkit_website_data_manager_fetch(manager, WEBKIT_WEBSITE_DATA_ALL, nullptr, remainsListed, removal);
}

void removeData(WebKitWebsiteDataManager* manager, std::unique_ptr<Removal> removal) {
    constexpr GTimeSpan of_all_time = 0;
    ++removal->attempts;
    webkit_website_data_manager_clear(manager, WEBKIT_WEBSITE_DATA_ALL, of_all_time, nullptr, dataRemoved,
                                      removal.release());
}

}  // namespace

WebKitPage::WebKitPage(const WebWorkerHostOptions& options, WebKitWebContext& context, const SystemLog& log,
                       WebPageDelegate& delegate)
    : options_(options),
      context_(context),
      log_(log),
      delegate_(delegate),
      window_(makeUndrawnWindow(options.windowTitle)),
      memoryWatch_({.process_bytes = std::uint64_t{options.pageMemoryLimit_mebibytes} << bits_of_a_mebibyte,
                    .growth_bytes = std::uint64_t{options.workerGrowthLimit_mebibytes} << bits_of_a_mebibyte},
                   {.onExcess = [this] { endProcessBecause(too_much_memory); },
                    .onGrowth = [this] { endProcessBecause(too_much_memory_here); }}) {
    openView();
}

WebKitPage::~WebKitPage() {
    g_signal_handlers_disconnect_by_data(view_, this);
}

bool WebKitPage::isAddress(std::string_view text) const {
    return isAbsoluteUrl(text);
}

void WebKitPage::loadText(const std::string& html, const std::string& baseDirectory) {
    source_ = {.address = directoryUrl(baseDirectory), .text = html};
    load();
}

void WebKitPage::loadAddress(const std::string& address, std::chrono::seconds timeout) {
    source_ = {.address = address, .text = std::nullopt, .timeout = timeout};
    load();
}

void WebKitPage::reload() {
    if (source_.address.empty()) return;
    // The engine would reload a text's base address instead, and nothing where no document ever arrived.
    if (source_.text || progress_ == Progress::idle || progress_ == Progress::provisional) return load();
    // As patient with the server as the first load was.
    progress_ = Progress::provisional;
    webkit_web_view_reload(view_);
    watchTransfer();
}

void WebKitPage::evaluate(const std::string& script, std::function<void(EvaluationOutcome)> done) {
    webkit_web_view_evaluate_javascript(view_, script.data(), static_cast<gssize>(script.size()), nullptr,
                                        nullptr, nullptr, evaluationDone,
                                        new EvaluationCallback(std::move(done)));
}

void WebKitPage::removeAllWebsiteData(std::function<void(bool isGone)> done) {
    removeData(webkit_web_view_get_website_data_manager(view_),
               std::make_unique<Removal>(Removal{.done = std::move(done)}));
}

void WebKitPage::endProcess() {
    endProcessBecause("The page's process was ended because it had stopped answering.");
}

void WebKitPage::endProcessBecause(const char* reason) {
    if (isProcessGone_) return;
    endReason_ = reason;
    // The engine reports the end from within the call.
    endTimer_ = std::make_unique<MainLoopTimer>(MainLoopTimer::Schedule{.interval = std::chrono::seconds(0)},
                                                [this] { webkit_web_view_terminate_web_process(view_); });
}

void WebKitPage::orderOut() {
    // An offscreen window is never on a screen; unmapping it would only put the page to sleep.
}

template <class Work>
void WebKitPage::hear(gpointer self, const Work& work) noexcept {
    auto& page = *static_cast<WebKitPage*>(self);
    withoutFailing([&] { work(page); },
                   [&](const std::exception& error) {
                       page.log_.error(std::string("A report of the engine was lost: ") + error.what());
                   });
}

/// Also in the place of one whose process has ended: the engine would keep the entries of that one's history,
/// with all the states that the page gave them, for as long as the view lives.
void WebKitPage::openView() {
    if (view_ != nullptr) {
        g_signal_handlers_disconnect_by_data(view_, this);
        gtk_widget_destroy(GTK_WIDGET(view_));
    }
    view_ = makeView(options_, context_);
    isProcessGone_ = false;
    gtk_container_add(GTK_CONTAINER(window_.get()), GTK_WIDGET(view_));
    connectSignals();
    gtk_widget_show_all(window_.get());
}

void WebKitPage::connectSignals() {
    denyWhatNeedsAPerson(*view_);
    const auto connect = [this](const char* signal, auto handler) {
        g_signal_connect(view_, signal, G_CALLBACK(+handler), this);
    };
    connect("load-changed", [](WebKitWebView*, WebKitLoadEvent event, gpointer self) {
        hear(self, [&](WebKitPage& page) { page.loadChanged(event); });
    });
    connect("load-failed",
            [](WebKitWebView*, WebKitLoadEvent event, char* address, GError* error, gpointer self) {
                hear(self, [&](WebKitPage& page) { page.loadFailed(event, textOf(address), *error); });
                // Keeps the engine from showing an error page of its own.
                return TRUE;
            });
    connect("notify::estimated-load-progress", [](WebKitWebView*, GParamSpec*, gpointer self) {
        hear(self, [](WebKitPage& page) { page.watchTransfer(); });
    });
    connect("decide-policy",
            [](WebKitWebView*, WebKitPolicyDecision* decision, WebKitPolicyDecisionType type,
               gpointer self) -> gboolean {
                std::optional<bool> isDecided;
                hear(self, [&](WebKitPage& page) { isDecided = page.decidePolicy(*decision, type); });
                // What nobody could judge is denied.
                if (!isDecided) webkit_policy_decision_ignore(decision);
                return isDecided.value_or(true) ? TRUE : FALSE;
            });
    connect("close", [](WebKitWebView*, gpointer self) {
        // A page that has closed itself does not come back to life in its process.
        hear(self, [](WebKitPage& page) { page.endProcessBecause("The page closed itself."); });
    });
    connect("web-process-terminated",
            [](WebKitWebView*, WebKitWebProcessTerminationReason reason, gpointer self) {
                hear(self, [&](WebKitPage& page) { page.processTerminated(reason); });
            });
}

void WebKitPage::load() {
    if (isProcessGone_) openView();
    site_ = PageSite(source_.address);
    progress_ = Progress::provisional;
    if (source_.text && source_.text->empty()) {
        webkit_web_view_load_html(view_, "", source_.address.c_str());
    } else if (source_.text) {
        // As bytes, because a text may contain the character U+0000; the engine takes no empty ones.
        const GBytesPointer bytes(g_bytes_new(source_.text->data(), source_.text->size()));
        webkit_web_view_load_bytes(view_, bytes.get(), "text/html", "UTF-8", source_.address.c_str());
    } else {
        webkit_web_view_load_uri(view_, source_.address.c_str());
    }
    watchTransfer();
}

void WebKitPage::loadChanged(WebKitLoadEvent event) {
    switch (event) {
        case WEBKIT_LOAD_STARTED:
        case WEBKIT_LOAD_REDIRECTED:
            break;
        case WEBKIT_LOAD_COMMITTED:
            documentCommitted();
            break;
        case WEBKIT_LOAD_FINISHED:
            // The engine also calls a load finished that failed, or that a newer one has replaced.
            if (progress_ != Progress::committed) break;
            stallTimer_.reset();
            progress_ = Progress::finished;
            delegate_.pageFinished();
            break;
    }
}

void WebKitPage::deny(const std::string& denial) {
    // Without a document there is nothing to go on with; otherwise what is shown stays as it is.
    if (progress_ == Progress::provisional) return reportFailure(Stage::provisional, denial);
    // A page may try hundreds of times a second.
    if (denialPause_) return;
    log_.error(denial);
    denialPause_ = std::make_unique<MainLoopTimer>(MainLoopTimer::Schedule{.interval = denial_pause},
                                                   [this] { denialPause_.reset(); });
}

void WebKitPage::documentCommitted() {
    progress_ = Progress::committed;
    const std::string address = textOf(webkit_web_view_get_uri(view_));
    if (site_->contains(address)) return;
    // Addresses such as about:blank are there before anybody can refuse them.
    progress_ = Progress::idle;
    delegate_.pageLost("The page left its site for " + shown(address) + ".");
}

void WebKitPage::loadFailed(WebKitLoadEvent event, const std::string& address, const GError& error) {
    // Whoever cancels or refuses a load has begun another one or has said why.
    if (g_error_matches(&error, WEBKIT_NETWORK_ERROR, WEBKIT_NETWORK_ERROR_CANCELLED) ||
        g_error_matches(&error, WEBKIT_POLICY_ERROR,
                        WEBKIT_POLICY_ERROR_FRAME_LOAD_INTERRUPTED_BY_POLICY_CHANGE)) {
        return;
    }
    if (progress_ != Progress::provisional && !site_->contains(address)) {
        return deny(describeDeparture(address));
    }
    reportFailure(event == WEBKIT_LOAD_COMMITTED ? Stage::committed : Stage::provisional, sentence(error));
}

void WebKitPage::reportFailure(Stage stage, const std::string& error) {
    // What the engine still says of this load is no progress.
    progress_ = Progress::idle;
    stallTimer_.reset();
    if (stage == Stage::committed) {
        delegate_.navigationFailed(error);
    } else {
        delegate_.provisionalNavigationFailed(error);
    }
}

void WebKitPage::watchTransfer() {
    if (source_.timeout.count() == 0 || progress_ == Progress::idle || progress_ == Progress::finished)
        return;
    stallTimer_ = std::make_unique<MainLoopTimer>(MainLoopTimer::Schedule{.interval = source_.timeout},
                                                  [this] { transferStalled(); });
}

void WebKitPage::transferStalled() {
    webkit_web_view_stop_loading(view_);
    reportFailure(progress_ == Progress::committed ? Stage::committed : Stage::provisional,
                  "The request timed out.");
}

bool WebKitPage::decidePolicy(WebKitPolicyDecision& decision, WebKitPolicyDecisionType type) {
    switch (type) {
        case WEBKIT_POLICY_DECISION_TYPE_NEW_WINDOW_ACTION:
            webkit_policy_decision_ignore(&decision);
            return true;
        case WEBKIT_POLICY_DECISION_TYPE_RESPONSE:
            return decideResponse(*WEBKIT_RESPONSE_POLICY_DECISION(&decision));
        case WEBKIT_POLICY_DECISION_TYPE_NAVIGATION_ACTION:
            break;
    }
    return false;
}

bool WebKitPage::decideResponse(WebKitResponsePolicyDecision& decision) {
    const std::string address =
        webkit_uri_response_get_uri(webkit_response_policy_decision_get_response(&decision));
    if (!webkit_response_policy_decision_is_main_frame_main_resource(&decision)) {
        if (webkit_response_policy_decision_is_mime_type_supported(&decision)) return false;
        webkit_policy_decision_ignore(WEBKIT_POLICY_DECISION(&decision));
        return true;
    }
    std::string denial;
    if (!webkit_response_policy_decision_is_mime_type_supported(&decision)) {
        denial = "The page offered " + shown(address) + " as a download, which is denied.";
    } else if (!site_->contains(address)) {
        denial = describeDeparture(address);
    }
    if (denial.empty()) return false;
    webkit_policy_decision_ignore(WEBKIT_POLICY_DECISION(&decision));
    deny(denial);
    return true;
}

void WebKitPage::processTerminated(WebKitWebProcessTerminationReason reason) {
    stallTimer_.reset();
    progress_ = Progress::idle;
    isProcessGone_ = true;
    endTimer_.reset();
    const char* ownReason = std::exchange(endReason_, nullptr);
    delegate_.pageLost(ownReason != nullptr ? ownReason : describe(reason));
}

}  // namespace brindle
