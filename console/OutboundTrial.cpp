#include "console/OutboundTrial.h"

#include <algorithm>
#include <array>
#include <optional>

#include "console/Inbox.h"
#include "exchange/ExchangeRecords.h"
#include "exchange/RecordFiles.h"
#include "system/Clock.h"
#include "system/Paths.h"
#include "text/Failure.h"

namespace brindle::console {
namespace {

constexpr std::size_t first_messages = 3;
constexpr std::string_view outbound_point = "outbound";
constexpr std::string_view bad_record_point = "bad-record";
constexpr std::string_view bad_record_name = "FFFFFFFF-0000-4000-8000-000000000000.json";
constexpr std::array<std::string_view, 2> strangers{".unfinished.json", "notes.txt"};

bool doesNotSend(const WorkerTrial& trial) {
    const auto status = trial.status();
    return status && !status->supportsOutbound;
}

std::string fileNameOf(const std::string& identifier) {
    return identifier + std::string(record_file_extension);
}

}  // namespace

OutboundTrial::OutboundTrial(FileManager& fileManager, const DataDirectory& directory,
                             std::string_view conversation)
    : fileManager_(fileManager),
      directory_(directory),
      conversation_(conversation),
      identifiers_(fileManager, directory.outbound) {
    std::vector<std::string> identifiers(first_messages);
    for (auto& each : identifiers) each = identifiers_.next();
    for (const auto& each : identifiers) names_.push_back(fileNameOf(each));
    // Backwards, so that neither times nor the order in a folder are the order of the names.
    for (auto each = identifiers.rbegin(); each != identifiers.rend(); ++each) write(*each);
    for (const auto name : strangers) {
        fileManager_.writeFileAtomically(joinedPath(directory_.outbound, name), "{}", Durability::process);
    }
}

void OutboundTrial::write(const std::string& identifier) {
    const ManagedWhatsAppOutboundRecord record{.messageId = identifier,
                                               .conversationId = conversation_,
                                               .text = "A message of check-worker",
                                               .replyToMessageId = std::nullopt,
                                               .createdAtISO8601 = iso8601(SystemClock().now()),
                                               .attachments = {}};
    writeRecord(fileManager_, DataDirectory::recordFile(directory_.outbound, identifier), record,
                Durability::process);
}

bool OutboundTrial::isIn(const std::string& folder, std::string_view name) const {
    return fileManager_.fileExists(joinedPath(folder, name));
}

Finding OutboundTrial::check(WorkerTrial& trial) {
    if (doesNotSend(trial)) {
        return Finding::note(outbound_point,
                             "The worker says that it does not send (supportsOutbound is false).",
                             "Messages wait in outbound for another one.", "Nothing, if that is meant.");
    }
    const auto later = identifiers_.next();
    names_.push_back(fileNameOf(later));
    write(later);
    std::string missing;
    const bool areTaken = trial.waitFor([&] {
        const auto left = std::find_if(names_.begin(), names_.end(), [&](const std::string& name) {
            return isIn(directory_.outbound, name) || !isIn(directory_.workerProcessedOutbound, name);
        });
        missing = left == names_.end() ? "" : *left;
        // What has happened is told a moment after it can be seen.
        return left == names_.end() && taken(trial).size() >= names_.size();
    });
    if (areTaken || missing.empty()) return checkOrder(trial);
    const bool stays = isIn(directory_.outbound, missing);
    return Finding::problem(
        outbound_point,
        stays ? missing + " stays in outbound." : missing + " is not in runtime/worker-processed-outbound.",
        stays ? "The message is not sent, or sent again and again."
              : "Nobody can tell which messages were sent.",
        "Send each message, then move its file to runtime/worker-processed-outbound under its own name.");
}

/// The messages that have left outbound, in the order in which they did.
std::vector<std::string> OutboundTrial::taken(const WorkerTrial& trial) const {
    std::vector<std::string> taken;
    for (const auto& event : trial.outboundEvents()) {
        const bool isMessage = std::find(names_.begin(), names_.end(), event.name) != names_.end();
        if (isMessage && event.kind == DirectoryEvent::Kind::left) taken.push_back(event.name);
    }
    return taken;
}

Finding OutboundTrial::checkOrder(const WorkerTrial& trial) const {
    if (taken(trial) == names_) {
        return Finding::ok(outbound_point, "Messages are taken once each, in the order of their names.");
    }
    return Finding::problem(outbound_point, "Messages are not taken in the order of their names.",
                            "They reach the service in another order than the parent sent them.",
                            "List outbound, sort the names, and take them one after the other.");
}

Finding OutboundTrial::checkBadRecord(WorkerTrial& trial) {
    if (doesNotSend(trial)) {
        return Finding::note(bad_record_point, "Not examined: the worker does not send.",
                             "No record is taken.", "Nothing, if that is meant.");
    }
    fileManager_.writeFileAtomically(joinedPath(directory_.outbound, bad_record_name), "{}",
                                     Durability::process);
    const bool isSetAside = trial.waitFor([&] {
        return !isIn(directory_.outbound, bad_record_name) &&
               isIn(directory_.workerRejectedOutbound, bad_record_name);
    });
    if (isSetAside) return Finding::ok(bad_record_point, "A record that does not decode is set aside.");
    return Finding::problem(bad_record_point, "A record that does not decode is not set aside.",
                            "It will never get better, and may hold up those behind it.",
                            "Move it to runtime/worker-rejected-outbound, and say why on standard error.");
}

Finding OutboundTrial::checkStrangers() {
    constexpr std::string_view point = "strangers";
    for (const auto name : strangers) {
        if (isIn(directory_.outbound, name)) continue;
        return Finding::problem(point, "The worker took " + std::string(name) + " out of outbound.",
                                "Hidden files are unfinished, and others are somebody else's.",
                                "Pass over hidden names and names that do not end in .json.");
    }
    return Finding::ok(point, "Hidden files, and others that are no records, are left alone.");
}

Finding OutboundTrial::checkInbound(WorkerTrial& trial) {
    constexpr std::string_view point = "inbound";
    std::string greatest;
    for (const auto& event : trial.inboundEvents()) {
        const auto name = shownFileName(event.name);
        if (event.kind == DirectoryEvent::Kind::written) {
            return Finding::problem(point, name + " was written under the name that the backend looks for.",
                                    "The backend may read half of a message and reject it.",
                                    "Write to a hidden file in the same folder, then rename it.");
        }
        if (event.kind != DirectoryEvent::Kind::appeared) continue;
        if (!isRecordFileName(event.name)) {
            return Finding::problem(point, "The name " + name + " does not end in .json.",
                                    "The backend never takes it.", "Name each file <messageId>.json.");
        }
        if (event.name <= greatest) {
            return Finding::problem(point, "The name " + name + " sorts before an earlier one.",
                                    "The parent may hear messages in another order than they came.",
                                    "Let the names ascend, also across restarts.");
        }
        greatest = event.name;
    }
    if (greatest.empty()) {
        return Finding::note(point, "The worker wrote no message.",
                             "There was nothing to see of its messages.",
                             "Nothing, unless something should have come in.");
    }
    try {
        for (const auto& name : recordNames(fileManager_, directory_.inbound)) {
            readRecord<ManagedWhatsAppInboundRecord>(fileManager_, joinedPath(directory_.inbound, name));
        }
    } catch (const Failure& failure) {
        return Finding::problem(point, failure.what(), "The backend rejects such a message.",
                                "Write every field that the worker guide requires.");
    }
    return Finding::ok(point, "Messages are whole, can be decoded, and their names ascend.");
}

}  // namespace brindle::console
