#include "worker/ManagedWhatsAppWebWorkerService.h"

#include <unistd.h>

#include <chrono>
#include <optional>
#include <utility>

#include "system/Processes.h"
#include "worker/ChatCapture.h"
#include "worker/FreshLinkReset.h"
#include "worker/LinkStateMonitor.h"
#include "worker/PageLoader.h"
#include "worker/PageScriptRunner.h"
#include "worker/RepeatingTask.h"
#include "worker/WorkerControl.h"

namespace brindle {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds state_interval{1500};
constexpr milliseconds control_interval{1000};
constexpr milliseconds inbound_interval{1000};
constexpr milliseconds parent_interval{1000};
constexpr milliseconds timer_tolerance{200};

}  // namespace

/// The page, the parts that work on it and the timers that drive them: none of them is there without it.
struct ManagedWhatsAppWebWorkerService::OpenPage {
    /// Opens the page. Throws Failure.
    explicit OpenPage(ManagedWhatsAppWebWorkerService& service)
        : page(service.host_.openPage(service)),
          scripts(*page, service.host_),
          control(*page, service.platform_, service.fileManager_, service.directory_.workerControlFile,
                  service.state_, service.log_),
          loader(*page, service.source_, service.recovery_, service.host_, service.qrCode_, service.state_,
                 service.publisher_, service.log_),
          linkStateMonitor(*page, scripts, service.recovery_, service.qrCode_, service.state_,
                           service.publisher_, service.log_),
          chatCapture(scripts, service.host_, service.fileManager_, service.directory_.inbound,
                      service.clock_, service.state_, service.publisher_, service.log_),
          freshLinkReset(*page, service.fileManager_, service.directory_.freshLinkRequestFile,
                         service.qrCode_, service.publisher_) {}

    Task<> refreshLoginState() {
        if (loader.isReloadPending()) co_return;
        co_await linkStateMonitor.refreshQRCode();
        co_await linkStateMonitor.refreshLinkState();
    }
    Task<> pollInboundMessages() {
        if (loader.isReloadPending()) co_return;
        co_await chatCapture.pollInboundMessages();
    }

    std::unique_ptr<WebPage> page;
    PageScriptRunner scripts;
    WorkerControl control;
    PageLoader loader;
    LinkStateMonitor linkStateMonitor;
    ChatCapture chatCapture;
    FreshLinkReset freshLinkReset;
    // Last, so that waiting tasks are given up before anything they use is gone.
    std::optional<Task<>> firstLoad;
    std::unique_ptr<RepeatingTask> stateTimer;
    std::unique_ptr<HostTimer> controlTimer;
    std::unique_ptr<RepeatingTask> inboundTimer;
    std::unique_ptr<HostTimer> parentTimer;
};

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
      recovery_(clock_),
      log_(host_),
      publisher_(state_, fileManager_, directory_.workerStatusFile, clock_, log_),
      qrCode_(fileManager_, directory_.workerQRCodeFile),
      source_(environment_, fileManager_) {
    directory_.createForWorker(fileManager_);
}

ManagedWhatsAppWebWorkerService::~ManagedWhatsAppWebWorkerService() = default;

void ManagedWhatsAppWebWorkerService::start() {
    page_ = std::make_unique<OpenPage>(*this);
    page_->page->orderOut();
    fileManager_.writeFileAtomically(directory_.workerPIDFile, std::to_string(::getpid()),
                                     Durability::process);
    publisher_.writeStatus();
    startPolling();
    page_->firstLoad.emplace(loadFirstPage());
    page_->firstLoad->start();
    host_.run();
    removeOwnFiles();
    page_.reset();
    if (firstLoadFailure_) std::rethrow_exception(firstLoadFailure_);
}

Task<> ManagedWhatsAppWebWorkerService::loadFirstPage() {
    try {
        co_await page_->freshLinkReset.resetForFreshLinkIfRequested();
        page_->loader.loadPage();
    } catch (const std::exception&) {
        firstLoadFailure_ = std::current_exception();
        host_.end();
    }
}

void ManagedWhatsAppWebWorkerService::startPolling() {
    if (!page_ || std::exchange(hasStartedPolling_, true)) return;
    OpenPage& open = *page_;
    open.stateTimer = std::make_unique<RepeatingTask>(
        host_, TickSchedule{.interval = state_interval, .tolerance = timer_tolerance},
        [&open] { return open.refreshLoginState(); });
    open.controlTimer =
        host_.repeat(control_interval, timer_tolerance, [&open] { open.control.refreshControl(); });
    open.inboundTimer = std::make_unique<RepeatingTask>(
        host_, TickSchedule{.interval = inbound_interval, .tolerance = timer_tolerance},
        [&open] { return open.pollInboundMessages(); });
    open.parentTimer = host_.repeat(parent_interval, timer_tolerance, [this] { checkParent(); });
}

void ManagedWhatsAppWebWorkerService::checkParent() {
    if (isParentAlive(parentProcessIdentifier_)) return;
    publisher_.publish(worker_state::stopped,
                       "Managed WhatsApp worker is stopping because the managed backend exited.");
    removeOwnFiles();
    // With the page goes everything that could publish again before the loop has ended.
    page_.reset();
    host_.end();
}

void ManagedWhatsAppWebWorkerService::removeOwnFiles() noexcept {
    fileManager_.removeIfPresent(directory_.workerPIDFile);
    fileManager_.removeIfPresent(directory_.workerStatusFile);
}

void ManagedWhatsAppWebWorkerService::pageFinished() {
    if (!page_) return;
    publisher_.publishWithoutAccount(worker_state::starting,
                                     "WhatsApp worker page loaded. Detecting QR and link state.");
    startPolling();
    page_->loader.pageFinished();
}

void ManagedWhatsAppWebWorkerService::navigationFailed(const std::string& error) {
    if (page_) page_->loader.navigationFailed(error);
}

void ManagedWhatsAppWebWorkerService::provisionalNavigationFailed(const std::string& error) {
    if (page_) page_->loader.provisionalNavigationFailed(error);
}

void ManagedWhatsAppWebWorkerService::pageLost(const std::string& error) {
    if (page_) page_->loader.pageLost(error);
}

}  // namespace brindle
