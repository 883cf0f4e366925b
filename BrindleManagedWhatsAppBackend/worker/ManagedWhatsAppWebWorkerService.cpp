#include "worker/ManagedWhatsAppWebWorkerService.h"

#include <unistd.h>

#include <chrono>
#include <utility>

#include "system/Processes.h"

namespace brindle {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds state_interval{1500};
constexpr milliseconds control_interval{1000};
constexpr milliseconds inbound_interval{1000};
constexpr milliseconds parent_interval{1000};
constexpr milliseconds timer_tolerance{200};

}  // namespace

ManagedWhatsAppWebWorkerService::ManagedWhatsAppWebWorkerService(std::string platform,
                                                                 Environment environment,
                                                                 FileManager& fileManager, const Clock& clock,
                                                                 WebWorkerHost& host,
                                                                 pid_t parentProcessIdentifier)
    : platform_(std::move(platform)),
      environment_(std::move(environment)),
      fileManager_(fileManager),
      clock_(clock),
      host_(host),
      parentProcessIdentifier_(parentProcessIdentifier),
      directory_(environment_, fileManager_, platform_),
      context_{.platform = platform_,
               .environment = environment_,
               .directory = directory_,
               .fileManager = fileManager_,
               .clock = clock_,
               .host = host_,
               .webView = webView_,
               .state = state_},
      publisher_(context_),
      control_(context_),
      scripts_(context_),
      loader_(context_, publisher_),
      linkStateMonitor_(context_, publisher_, scripts_),
      chatCapture_(context_, publisher_, scripts_),
      freshLinkReset_(context_, publisher_) {
    state_.pageLoadIssuedAt = clock_.now();
    directory_.createForWorker(fileManager_);
}

void ManagedWhatsAppWebWorkerService::start() {
    webView_ = host_.openPage(*this);
    context_.hideWindow();
    fileManager_.writeFileAtomically(directory_.workerPIDFile, std::to_string(::getpid()),
                                     Durability::process);
    publisher_.writeStatus();
    startPolling();
    firstLoad_.emplace(loadFirstPage());
    firstLoad_->start();
    host_.run();
    stopPolling();
    removeOwnFiles();
    if (firstLoadFailure_) std::rethrow_exception(firstLoadFailure_);
}

Task<> ManagedWhatsAppWebWorkerService::loadFirstPage() {
    try {
        co_await freshLinkReset_.resetForFreshLinkIfRequested();
        loader_.loadPage();
    } catch (const std::exception&) {
        firstLoadFailure_ = std::current_exception();
        host_.end();
    }
}

void ManagedWhatsAppWebWorkerService::startPolling() {
    if (std::exchange(hasStartedPolling_, true)) return;
    stateTimer_ = std::make_unique<RepeatingTask>(
        host_, TickSchedule{.interval = state_interval, .tolerance = timer_tolerance},
        [this] { return refreshLoginState(); });
    controlTimer_ = host_.repeat(control_interval, timer_tolerance, [this] { control_.refreshControl(); });
    inboundTimer_ = std::make_unique<RepeatingTask>(
        host_, TickSchedule{.interval = inbound_interval, .tolerance = timer_tolerance},
        [this] { return pollInboundMessages(); });
    parentTimer_ = host_.repeat(parent_interval, timer_tolerance, [this] { checkParent(); });
}

void ManagedWhatsAppWebWorkerService::stopPolling() {
    stateTimer_.reset();
    controlTimer_.reset();
    inboundTimer_.reset();
    parentTimer_.reset();
    firstLoad_.reset();
}

Task<> ManagedWhatsAppWebWorkerService::refreshLoginState() {
    if (loader_.isReloadPending()) co_return;
    co_await linkStateMonitor_.refreshQRCode();
    co_await linkStateMonitor_.refreshLinkState();
}

Task<> ManagedWhatsAppWebWorkerService::pollInboundMessages() {
    if (loader_.isReloadPending()) co_return;
    co_await chatCapture_.pollInboundMessages();
}

void ManagedWhatsAppWebWorkerService::checkParent() {
    if (isParentAlive(parentProcessIdentifier_)) return;
    stopPolling();
    publisher_.publish(worker_state::stopped,
                       "Managed WhatsApp worker is stopping because the managed backend exited.");
    removeOwnFiles();
    // Nothing may publish again before the loop has ended.
    webView_.reset();
    host_.end();
}

void ManagedWhatsAppWebWorkerService::removeOwnFiles() {
    fileManager_.removeIfPresent(directory_.workerPIDFile);
    fileManager_.removeIfPresent(directory_.workerStatusFile);
}

void ManagedWhatsAppWebWorkerService::pageFinished() {
    publisher_.publishWithoutAccount(worker_state::starting,
                                     "WhatsApp worker page loaded. Detecting QR and link state.");
    startPolling();
    loader_.pageFinished();
}

void ManagedWhatsAppWebWorkerService::navigationFailed(const std::string& error) {
    loader_.navigationFailed(error);
}

void ManagedWhatsAppWebWorkerService::provisionalNavigationFailed(const std::string& error) {
    loader_.provisionalNavigationFailed(error);
}

void ManagedWhatsAppWebWorkerService::pageLost(const std::string& error) {
    loader_.pageLost(error);
}

}  // namespace brindle
