#pragma once

#include <cstddef>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "system/FileManager.h"

namespace brindle::console {

/// What can be put in the place of the last word of a line.
struct Completion {
    /// Where that word begins in the line.
    std::size_t begin = 0;
    /// The whole words, ready to be put there, in order.
    std::vector<std::string> candidates;

    /// The beginning that all candidates have in common.
    std::string commonBeginning() const;
};

/// What a session has come across and a line may name again.
class SeenNames {
  public:
    /// How many of each kind are kept: a chat with many members must not fill the memory.
    static constexpr std::size_t kept_names = 1000;

    void addConversation(const std::string& identifier) { add(conversations_, identifier); }
    void addTitle(const std::string& title) { add(titles_, title); }
    const std::set<std::string>& conversations() const { return conversations_; }
    const std::set<std::string>& titles() const { return titles_; }

  private:
    static void add(std::set<std::string>& names, const std::string& name);

    std::set<std::string> conversations_;
    std::set<std::string> titles_;
};

/// Where the words come from that no declaration knows.
struct CompletionSources {
    const SeenNames& seen;
    FileManager& fileManager;
    /// Folders of records whose names can be asked for.
    std::vector<std::string> recordFolders;
};

/// How the beginning of a command line can go on: with commands and their words, the names of envelopes,
/// status fields and records, files, and conversations and titles that were seen.
Completion completedCommand(std::string_view line, const CompletionSources& sources);

}  // namespace brindle::console
