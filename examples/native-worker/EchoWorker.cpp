#include "EchoWorker.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <utility>

#include "exchange/ExchangeWords.h"
#include "exchange/RecordFiles.h"
#include "records/DecodingFailure.h"
#include "system/Clock.h"
#include "system/FileSystemFailure.h"
#include "system/Paths.h"
#include "text/Failure.h"
#include "text/Text.h"

using namespace brindle;

namespace {

constexpr std::string_view account_name = "Echo";
constexpr std::string_view sender_identifier = "echo";
constexpr std::string_view echo_infix = "-echo-";

std::string now() {
    return iso8601(SystemClock().now());
}

/// A chat without an identifier is none that an echo could be sent to.
bool isChat(const ManagedWhatsAppWorkerControlScope& scope) {
    return scope.id && scope_kind::isChat(scope.kind);
}

}  // namespace

EchoWorker::EchoWorker(WorkerSettings settings, FileManager& fileManager, std::function<bool()> mustEnd)
    : settings_(std::move(settings)),
      fileManager_(fileManager),
      mustEnd_(std::move(mustEnd)),
      identifiers_(fileManager_, settings_.directory.inbound) {}

EchoWorker::~EchoWorker() {
    removeOwnFiles();
}

void EchoWorker::start() {
    settings_.directory.createForWorker(fileManager_);
    fileManager_.writeFileAtomically(settings_.directory.workerPIDFile, std::to_string(::getpid()),
                                     Durability::process);
    publishStatus();
}

void EchoWorker::tick() {
    std::string problems;
    // Each step has its own try: a full disk must not keep the heartbeat from being tried.
    for (const auto step :
         {&EchoWorker::refreshControl, &EchoWorker::handleOutbound, &EchoWorker::publishStatus}) {
        try {
            (this->*step)();
        } catch (const std::exception& problem) {
            problems.append(problem.what()).append("\n");
        }
    }
    if (problems != lastProblems_) std::cerr << problems;
    lastProblems_ = problems;
}

void EchoWorker::refreshControl() {
    try {
        const auto control = readRecord<ManagedWhatsAppWorkerControlRecord>(
            fileManager_, settings_.directory.workerControlFile);
        if (control.platform != settings_.platform) return;
        watched_ = control.activeScope;
        if (watched_ && !isChat(*watched_)) watched_.reset();
    } catch (const FileSystemFailure& failure) {
        watched_.reset();
        if (failure.code() != ENOENT) throw;
    } catch (const DecodingFailure&) {
        watched_.reset();
        throw;
    }
}

/// By name: the backend's names ascend, so that is the order in which the messages were accepted. Their times
/// have whole seconds and go back when somebody sets the clock.
void EchoWorker::handleOutbound() {
    const auto waiting = waitingRecords(fileManager_, settings_.directory.outbound);
    if (!waiting.empty() && !echoed_) echoed_ = echoedAmong(waiting);
    for (const auto& fileName : waiting) {
        if (mustEnd_()) return;
        const auto record = readOutgoing(fileName);
        if (!record) continue;
        deliver(*record);
        // Last of all: a worker that dies before this line finds the record again.
        fileAway(fileName, settings_.directory.workerProcessedOutbound);
        echoed_->erase(record->messageId);
    }
}

/// The record in that file, or nothing when it had to be rejected. Throws when it may be in order later;
/// those behind it must not overtake it and wait as well.
std::optional<ManagedWhatsAppOutboundRecord> EchoWorker::readOutgoing(const std::string& fileName) {
    try {
        const auto path = joinedPath(settings_.directory.outbound, fileName);
        auto record = readRecord<ManagedWhatsAppOutboundRecord>(fileManager_, path);
        // The identifier becomes part of a file name; it can be trusted when it already is one.
        if (record.messageId + std::string(record_file_extension) != fileName) {
            throw Failure("Its message identifier is not its file name.");
        }
        return record;
    } catch (const FileSystemFailure& failure) {
        // Neither a regular file nor of any sensible size: it will never be in order. Anything else may pass.
        if (failure.code() != EINVAL && failure.code() != EFBIG) throw;
        reject(fileName, failure);
    } catch (const Failure& failure) {
        reject(fileName, failure);
    }
    return std::nullopt;
}

void EchoWorker::reject(const std::string& fileName, const Failure& failure) {
    std::cerr << "Rejected outbound record " + singleLine(fileName) + ": " + failure.what() + "\n";
    fileAway(fileName, settings_.directory.workerRejectedOutbound);
}

/// A real worker sends here. Done twice it must have the effect of once, because a crash may come right
/// after.
void EchoWorker::deliver(const ManagedWhatsAppOutboundRecord& record) {
    if (echoed_->contains(record.messageId)) return;
    writeEcho(record);
    echoed_->insert(record.messageId);
    std::cout << "Echoed message " + record.messageId + ".\n" << std::flush;
}

/// The messages that wait although an earlier worker has echoed them. Looked for once: later on this worker
/// knows itself.
std::set<std::string> EchoWorker::echoedAmong(const std::vector<std::string>& waiting) {
    const auto& directory = settings_.directory;
    std::set<std::string> messageIds;
    // In the order in which the backend moves the file, so that one on its way is not missed.
    for (const auto& place : {directory.inbound, directory.processed, directory.rejected}) {
        for (const auto& name : fileManager_.visibleEntries(place)) {
            const auto infix = name.find(echo_infix);
            if (infix == std::string::npos) continue;
            const auto fileName = name.substr(infix + echo_infix.size());
            if (!std::binary_search(waiting.begin(), waiting.end(), fileName)) continue;
            messageIds.insert(fileName.substr(0, fileName.size() - record_file_extension.size()));
        }
    }
    return messageIds;
}

/// The name begins with an ascending identifier, because the backend delivers in order of names, and ends
/// with the identifier of the message, by which an echo is known again.
void EchoWorker::writeEcho(const ManagedWhatsAppOutboundRecord& record) {
    const std::string messageId = identifiers_.next().append(echo_infix).append(record.messageId);
    const std::string conversation = watched_ ? *watched_->id : record.conversationId;
    const ManagedWhatsAppWorkerInboundRecord echo{
        .messageId = messageId,
        .conversationId = conversation,
        .conversationTitle = watched_ && watched_->title ? *watched_->title : conversation,
        .senderId = std::string(sender_identifier),
        .senderDisplayName = std::string(account_name),
        .text = "Echo: " + record.text,
        .timestampISO8601 = now(),
        .isDirectMessage = !watched_ || watched_->kind == scope_kind::conversation,
        .rawReference = record.messageId,
    };
    writeRecord(fileManager_, DataDirectory::recordFile(settings_.directory.inbound, messageId), echo,
                Durability::disk);
}

void EchoWorker::fileAway(const std::string& fileName, const std::string& directory) {
    moveRecordFile(fileManager_, fileName, settings_.directory.outbound, directory);
}

void EchoWorker::publishStatus() {
    const auto title = watched_ ? watched_->title.value_or(*watched_->id) : std::string();
    const ManagedWhatsAppWorkerStatusRecord status{
        .state = std::string(watched_ ? worker_state::watching_chat : worker_state::linked),
        .displayName = std::string(account_name),
        .detail = watched_ ? "Watching " + title + "." : "Linked; no chat is being watched.",
        .lastHeartbeatISO8601 = now(),
        .contactQRLink = std::nullopt,
        .supportsLiveCapture = true,
        .supportsOutbound = true,
    };
    writeRecord(fileManager_, settings_.directory.workerStatusFile, status, Durability::process);
}

/// When the next backend has already started its own worker, the files are that worker's.
void EchoWorker::removeOwnFiles() noexcept {
    try {
        if (fileManager_.readFile(settings_.directory.workerPIDFile) != std::to_string(::getpid())) return;
    } catch (const std::exception&) {
        return;
    }
    fileManager_.removeIfPresent(settings_.directory.workerStatusFile);
    fileManager_.removeIfPresent(settings_.directory.workerPIDFile);
}
