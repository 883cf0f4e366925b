#include "console/Inbox.h"

#include <errno.h>

#include <algorithm>
#include <array>
#include <cstddef>

#include "console/Columns.h"
#include "console/TerminalColors.h"
#include "console/TerminalText.h"
#include "exchange/ExchangeRecords.h"
#include "exchange/RecordFiles.h"
#include "system/FileSystemFailure.h"
#include "system/Paths.h"
#include "text/Failure.h"
#include "text/Text.h"

namespace brindle::console {
namespace {

constexpr std::size_t shown_name_characters = 48;
constexpr std::size_t shown_text_characters = 80;
constexpr std::size_t folder_columns = 11;
constexpr std::size_t name_columns = 42;
constexpr std::string_view rejected_folder = "rejected";

/// False when the file has gone.
bool decode(FileManager& fileManager, const std::string& path, InboxRecord& record) {
    try {
        auto content = readRecord<ManagedWhatsAppInboundRecord>(fileManager, path);
        record.conversationTitle = std::move(content.conversationTitle);
        record.sender = std::move(content.senderDisplayName);
        record.text = std::move(content.text);
    } catch (const Failure& failure) {
        // A helper that delivers moves records while they are looked at.
        if (!fileManager.attributes(path)) return false;
        record.reason = failure.what();
    }
    return true;
}

InboxRecord onlyOne(std::vector<InboxRecord> records, std::string_view name) {
    if (records.empty()) {
        throw Failure("There is no inbound record \"" + singleLine(name) +
                      "\"; \"inbox\" lists them, with the names to give.");
    }
    if (records.size() > 1) {
        throw Failure("Several inbound records are shown as \"" + singleLine(name) +
                      "\"; look at their files in the data directory.");
    }
    return std::move(records.front());
}

std::string shownText(std::string_view text) {
    return terminalSafe(shortened(text, shown_text_characters));
}

std::string shownContent(const InboxRecord& record, bool inColor) {
    if (record.reason) return colored(terminalSafe(*record.reason), red_color, inColor);
    std::string content = shownText(record.sender.value_or("")) + ": " + shownText(record.text.value_or("")) +
                          " [" + shownText(record.conversationTitle.value_or("")) + "]";
    if (record.folder != rejected_folder) return content;
    return content +
           " (can be decoded: its file could not be moved, or was corrected; \"inbox restore\" puts it back)";
}

}  // namespace

std::vector<std::string> recordNames(FileManager& fileManager, const std::string& directory) {
    try {
        std::vector<std::string> names;
        for (auto& entry : waitingRecords(*fileManager.openDirectory(directory))) {
            names.push_back(std::move(entry.name));
        }
        return names;
    } catch (const FileSystemFailure& failure) {
        // A folder that no helper has made yet holds nothing.
        if (failure.code() == ENOENT) return {};
        throw;
    }
}

InboxListing Inbox::list() const {
    InboxListing listing;
    for (const auto* folder : {&directory_.inbound, &directory_.processed, &directory_.rejected}) {
        for (auto& name : recordNames(fileManager_, *folder)) {
            InboxRecord record;
            record.folder = lastPathComponent(*folder);
            if (!decode(fileManager_, joinedPath(*folder, name), record)) continue;
            record.name = std::move(name);
            listing.records.push_back(std::move(record));
        }
    }
    return listing;
}

std::vector<InboxRecord> Inbox::named(std::string_view name) const {
    auto listing = list();
    std::erase_if(listing.records, [&](const InboxRecord& each) {
        return each.name != name && shownFileName(each.name) != name;
    });
    return std::move(listing.records);
}

InboxRecord Inbox::find(std::string_view name) const {
    return onlyOne(named(name), name);
}

InboxRecord Inbox::findRejected(std::string_view name) const {
    auto records = named(name);
    const auto isElsewhere = [](const InboxRecord& each) { return each.folder != rejected_folder; };
    if (!std::all_of(records.begin(), records.end(), isElsewhere)) std::erase_if(records, isElsewhere);
    return onlyOne(std::move(records), name);
}

std::string Inbox::pathOf(const InboxRecord& record) const {
    return joinedPath(joinedPath(directory_.path, record.folder), record.name);
}

std::string Inbox::content(const InboxRecord& record) const {
    return fileManager_.readFile(pathOf(record));
}

void Inbox::restore(const InboxRecord& record) const {
    const auto name = shownFileName(record.name);
    if (record.folder != rejected_folder) {
        throw Failure("The record " + name + " was not rejected, it lies in " + record.folder +
                      "; only rejected ones can be put back.");
    }
    if (record.reason) {
        throw Failure("The record " + name + " would be rejected again: " + *record.reason +
                      " Correct its file first.");
    }
    putRecordFileBack(fileManager_, pathOf(record), directory_.inbound, record.name);
}

std::string shownFileName(std::string_view name) {
    return shortened(terminalSafeJson(name), shown_name_characters);
}

std::string inboxText(const InboxListing& listing, bool inColor) {
    if (listing.records.empty())
        return "No inbound records: none waits, none was processed, none was rejected.\n";
    std::string text;
    for (const auto& record : listing.records) {
        text += leftAligned(record.folder, folder_columns) +
                leftAligned(shownFileName(record.name), name_columns) + shownContent(record, inColor) + "\n";
    }
    return text;
}

}  // namespace brindle::console
