#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "exchange/DataDirectory.h"
#include "records/Record.h"
#include "system/FileManager.h"

namespace brindle::console {

/// An inbound record and where it lies.
struct InboxRecord {
    /// "inbound", "processed" or "rejected".
    std::string folder;
    std::string name;
    std::optional<std::string> conversationTitle;
    std::optional<std::string> sender;
    std::optional<std::string> text;
    /// Why it cannot be used; absent when it can be decoded.
    std::optional<std::string> reason;

    static constexpr auto fields() {
        return std::tuple{
            field("folder", &InboxRecord::folder, "\"inbound\", \"processed\" or \"rejected\"."),
            field("name", &InboxRecord::name, "The name of the file."),
            field("conversationTitle", &InboxRecord::conversationTitle, "The chat that it came in."),
            field("sender", &InboxRecord::sender, "Who wrote it."),
            field("text", &InboxRecord::text, "What it says."),
            field("reason", &InboxRecord::reason, "Why it cannot be used; absent when it can be decoded."),
        };
    }
};

/// Everything that a listing shows.
struct InboxListing {
    std::vector<InboxRecord> records;

    static constexpr auto fields() {
        return std::tuple{field("records", &InboxListing::records, "In the order of folders and names.")};
    }
};

/// The records that a worker has written: those that wait, those that were delivered and those that were not.
class Inbox {
  public:
    /// Both outlive it.
    Inbox(FileManager& fileManager, const DataDirectory& directory)
        : fileManager_(fileManager), directory_(directory) {}

    /// Each record is decoded for it. Throws FileSystemFailure.
    InboxListing list() const;
    /// The record of that name, or of that name as a listing shows it. Throws Failure when there is none, or
    /// when several are meant.
    InboxRecord find(std::string_view name) const;
    /// The same, but among several the rejected one is meant.
    InboxRecord findRejected(std::string_view name) const;
    /// What its file holds. Throws FileSystemFailure.
    std::string content(const InboxRecord& record) const;
    /// Puts a rejected record back where the backend takes it, replacing nothing. Throws Failure when it was
    /// not rejected or can still not be decoded.
    void restore(const InboxRecord& record) const;

  private:
    std::vector<InboxRecord> named(std::string_view name) const;
    std::string pathOf(const InboxRecord& record) const;

    FileManager& fileManager_;
    const DataDirectory& directory_;
};

/// The names of the records that wait in a folder, in order; none in one that is not there. Throws
/// FileSystemFailure.
std::vector<std::string> recordNames(FileManager& fileManager, const std::string& directory);

/// The name of a file as people are shown it: on one line, not too long, with escapes for what a terminal
/// would obey.
std::string shownFileName(std::string_view name);

/// A listing for people: a line for each record.
std::string inboxText(const InboxListing& listing, bool inColor);

}  // namespace brindle::console
