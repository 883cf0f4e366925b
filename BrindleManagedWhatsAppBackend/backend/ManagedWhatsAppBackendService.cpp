#include "backend/ManagedWhatsAppBackendService.h"

#include <unistd.h>

#include <chrono>
#include <optional>
#include <type_traits>

#include "backend/BackendIdentity.h"
#include "exchange/ExchangeRecords.h"
#include "system/OutputStream.h"
#include "system/Processes.h"
#include "text/Identifier.h"
#include "text/Text.h"

namespace brindle {
namespace {

using std::chrono::milliseconds;

constexpr std::string_view poll_queue_label = "com.brindle.Brindle.ManagedWhatsAppBackend.poll";
constexpr milliseconds poller_first_fire{250};
constexpr milliseconds inbound_interval{500};
constexpr milliseconds status_interval{1000};
constexpr milliseconds parent_interval{1000};
/// How long the end of the service waits for a poller that is busy writing to a reader that does not read.
constexpr milliseconds poll_queue_patience{1000};

constexpr std::string_view self_test_reference = "managed-whatsapp-backend-self-test";
constexpr std::string_view self_test_sender = "managed-whatsapp-backend";
constexpr std::string_view self_test_text = "/skiff help";

}  // namespace

ManagedWhatsAppBackendService::ManagedWhatsAppBackendService(std::string platform, Environment environment,
                                                             FileManager& fileManager, const Clock& clock,
                                                             BridgeChannel& channel,
                                                             pid_t parentProcessIdentifier)
    : pollQueue_(std::string(poll_queue_label)),
      platform_(std::move(platform)),
      environment_(std::move(environment)),
      fileManager_(fileManager),
      clock_(clock),
      channel_(channel),
      parentProcessIdentifier_(parentProcessIdentifier),
      directory_(environment_, fileManager_, platform_),
      log_(channel_.emitter()),
      publisher_({.platform = platform_,
                  .directory = directory_,
                  .fileManager = fileManager_,
                  .clock = clock_,
                  .state = state_,
                  .log = log_}),
      delivery_({.directory = directory_,
                 .fileManager = fileManager_,
                 .clock = clock_,
                 .state = state_,
                 .emitter = channel_.emitter(),
                 .departureWatch = channel_.departureWatch(),
                 .log = log_,
                 .queue = pollQueue_}),
      inboundWatch_(
          {.directory = directory_, .fileManager = fileManager_, .delivery = delivery_, .queue = pollQueue_}),
      outboundIdentifiers_(fileManager_, directory_.outbound),
      supervisor_({.platform = platform_,
                   .environment = environment_,
                   .directory = directory_,
                   .fileManager = fileManager_,
                   .clock = clock_,
                   .state = state_,
                   .publisher = publisher_,
                   .emitter = channel_.emitter(),
                   .log = log_,
                   .queue = pollQueue_}),
      housekeeping_({.environment = environment_,
                     .directory = directory_,
                     .fileManager = fileManager_,
                     .clock = clock_,
                     .log = log_,
                     .isNeeded = [this](const std::string& path) { return delivery_.mayGoBack(path); },
                     .queue = pollQueue_}) {
    directory_.createForBackend(fileManager_);
    startPollers();
    channel_.emitter().diagnostics().useQueue(pollQueue_);
    publisher_.writeRuntimeStatus();
}

ManagedWhatsAppBackendService::~ManagedWhatsAppBackendService() {
    inboundPoller_.reset();
    statusPoller_.reset();
    parentMonitor_.reset();
    delivery_.stop();
    supervisor_.stopWorker();
    if (!pollQueue_.stop(poll_queue_patience)) channel_.departureWatch().abandonOutput();
    pollQueue_.join();
    channel_.emitter().diagnostics().stopUsingQueue();
    delivery_.putBackWhatWasNotRead();
}

void ManagedWhatsAppBackendService::startPollers() {
    inboundPoller_ =
        std::make_unique<RepeatingTimer>(pollQueue_, poller_first_fire, inbound_interval, [this] {
            supervisor_.resumeRelay();
            inboundWatch_.keepUp();
            delivery_.drainUnlessUnderWay();
        });
    statusPoller_ = std::make_unique<RepeatingTimer>(pollQueue_, poller_first_fire, status_interval,
                                                     [this] { publisher_.writeRuntimeStatus(); });
}

void ManagedWhatsAppBackendService::startParentMonitor() {
    parentMonitor_ = std::make_unique<RepeatingTimer>(pollQueue_, parent_interval, parent_interval,
                                                      [this] { checkParent(); });
}

void ManagedWhatsAppBackendService::checkParent() noexcept {
    if (isParentAlive(parentProcessIdentifier_)) return;
    // Nobody is left to read: a writer that still waits must not hold up the end.
    channel_.departureWatch().abandonOutput();
    log_.write("bridge service parent is no longer alive; stopping the managed backend and worker.");
    supervisor_.stopWorker();
    publisher_.writeRuntimeStatus();
    delivery_.putBackWhatWasNotRead();
    channel_.emitter().diagnostics().finish(milliseconds{0});
    // From this thread no orderly return through main is possible: main may be waiting for input for ever.
    ::_exit(0);
}

void ManagedWhatsAppBackendService::run() {
    supervisor_.launchWorkerIfConfigured();
    housekeeping_.start();
    startParentMonitor();
    try {
        greet();
        while (channel_.waitForRequest()) answerRequest();
        delivery_.completeWhatIsUnderWay();
    } catch (const OutputAbandoned&) {
        // Nobody reads and the input has ended: a normal end.
    } catch (...) {
        shutDown();
        throw;
    }
    shutDown();
}

void ManagedWhatsAppBackendService::greet() {
    channel_.emit(BridgeHello{.platform = platform_, .bridgeVersion = std::string(backend_version)});
    channel_.emit(BridgeStateChangedEvent{BridgeDisconnectedState{}});
    publisher_.writeRuntimeStatus();
}

void ManagedWhatsAppBackendService::answerRequest() {
    try {
        handle(channel_.takeRequest());
    } catch (const OutputAbandoned&) {
        // Nobody is left to answer. What follows in the input is still carried out: a message may be among
        // it.
    } catch (const std::exception& error) {
        replyWithError(descriptionOf(error));
    }
}

void ManagedWhatsAppBackendService::replyWithError(const std::string& message) {
    try {
        channel_.emit(BridgeErrorEvent{message});
    } catch (const OutputAbandoned&) {
        // As above.
    }
}

void ManagedWhatsAppBackendService::shutDown() noexcept {
    parentMonitor_.reset();
    supervisor_.stopWorker();
    publisher_.writeRuntimeStatus();
}

bool ManagedWhatsAppBackendService::isForUs(const std::string& platform) const {
    return canonicallyEquivalent(platform, platform_);
}

void ManagedWhatsAppBackendService::handle(BridgeEnvelope envelope) {
    std::visit(
        [this](auto& payload) {
            // The other envelopes are the ones that we send.
            if constexpr (requires { perform(std::move(payload)); }) {
                if (!isForUs(payload.platform)) return;
                perform(std::move(payload));
                publisher_.writeRuntimeStatus();
            }
        },
        envelope);
}

void ManagedWhatsAppBackendService::perform(const BridgeConnectRequest&) {
    state_.setConnected(true);
    channel_.emit(BridgeStateChangedEvent{BridgeConnectingState{}});
    channel_.emit(BridgeStateChangedEvent{BridgeConnectedState{std::string(backend_display_name)}});
}

void ManagedWhatsAppBackendService::perform(const BridgeDisconnectRequest&) {
    state_.setConnected(false);
    state_.setActiveScope(std::nullopt);
    channel_.emit(BridgeStateChangedEvent{BridgeDisconnectedState{}});
}

void ManagedWhatsAppBackendService::perform(const BridgeStartListeningRequest& request) {
    state_.setActiveScope(request.scope);
    if (const auto* selfTest = std::get_if<BridgeTestOnlyScope>(&request.scope)) {
        emitSelfTestEvent(*selfTest);
    } else {
        // Not only at the next beat: what comes from now on is not to wait for it.
        pollQueue_.post([this] { inboundWatch_.keepUp(); });
        delivery_.drainInboundDirectory();
    }
}

void ManagedWhatsAppBackendService::perform(const BridgeStopListeningRequest&) {
    state_.setActiveScope(std::nullopt);
}

void ManagedWhatsAppBackendService::perform(BridgeSendMessageRequest&& request) {
    writeOutboundRecord(std::move(request.message));
}

void ManagedWhatsAppBackendService::emitSelfTestEvent(const BridgeTestOnlyScope& scope) {
    channel_.emit(BridgeInboundEvent{{.messageId = randomIdentifier(),
                                      .conversationId = std::string(self_test_reference),
                                      .conversationTitle = scope.title,
                                      .senderId = std::string(self_test_sender),
                                      .senderDisplayName = std::string(backend_display_name),
                                      .text = std::string(self_test_text),
                                      .timestampISO8601 = iso8601(clock_.now()),
                                      .isDirectMessage = true,
                                      .rawReference = std::string(self_test_reference)}});
}

void ManagedWhatsAppBackendService::writeOutboundRecord(BridgeOutboundMessage message) {
    ManagedWhatsAppOutboundRecord record;
    record.messageId = outboundIdentifiers_.next();
    record.conversationId = std::move(message.conversationId);
    record.text = std::move(message.text);
    record.replyToMessageId = std::move(message.replyToMessageId);
    record.createdAtISO8601 = iso8601(clock_.now());
    if (message.attachments) record.attachments = std::move(*message.attachments);
    writeRecord(fileManager_, DataDirectory::recordFile(directory_.outbound, record.messageId), record,
                Durability::disk);
}

}  // namespace brindle
