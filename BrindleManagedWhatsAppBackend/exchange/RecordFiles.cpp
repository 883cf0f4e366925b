#include "exchange/RecordFiles.h"

#include <errno.h>
#include <limits.h>

#include <algorithm>
#include <utility>

#include "system/FileSystemFailure.h"
#include "system/Paths.h"
#include "text/Identifier.h"

namespace brindle {
namespace {

bool comesBefore(const DirectoryEntry& one, const DirectoryEntry& other) {
    return one.name < other.name;
}

std::vector<DirectoryEntry> recordsAmong(std::vector<DirectoryEntry> entries) {
    std::erase_if(entries, [](const DirectoryEntry& entry) { return !isRecordFileName(entry.name); });
    return entries;
}

std::vector<DirectoryEntry> inOrder(std::vector<DirectoryEntry> entries) {
    std::sort(entries.begin(), entries.end(), comesBefore);
    return entries;
}

/// A fresh name that ends like the given one. Of a name that leaves no room in front of it the beginning
/// goes: a record that cannot be filed away would be delivered again and again and hold up all that wait
/// behind it.
std::string underFreshPrefix(std::string_view name) {
    auto fresh = randomIdentifier().append("-");
    name.remove_prefix(name.size() - std::min(name.size(), NAME_MAX - fresh.size()));
    return fresh.append(name);
}

/// A fresh name of a record that comes just before the given one, as near as a name has room for.
std::string justBefore(std::string_view name) {
    // A hyphen comes before the full stop of the extension.
    const auto ending = std::string("-").append(randomIdentifier()).append(record_file_extension);
    name.remove_suffix(record_file_extension.size());
    return std::string(name.substr(0, NAME_MAX - ending.size())).append(ending);
}

}  // namespace

bool isRecordFileName(std::string_view name) {
    return name.ends_with(record_file_extension);
}

std::vector<DirectoryEntry> waitingRecords(Directory& directory) {
    auto first = directory.list();
    auto records = recordsAmong(std::move(first.visibleEntries));
    if (first.isSnapshot || records.empty()) return inOrder(std::move(records));
    // Whatever was written before the greatest of them was there before the second listing began, which
    // therefore has it.
    const auto greatest = std::move(*std::max_element(records.begin(), records.end(), comesBefore));
    records = recordsAmong(directory.list().visibleEntries);
    std::erase_if(records, [&](const DirectoryEntry& each) { return comesBefore(greatest, each); });
    return inOrder(std::move(records));
}

std::string moveRecordFile(Directory& fromDirectory, const std::string& name,
                           const std::string& toDirectory) {
    auto filedAs = name;
    try {
        fromDirectory.moveItem(name, joinedPath(toDirectory, filedAs));
    } catch (const FileSystemFailure& failure) {
        if (failure.code() != EEXIST) throw;
        filedAs = underFreshPrefix(name);
        fromDirectory.moveItem(name, joinedPath(toDirectory, filedAs));
    }
    return filedAs;
}

void putRecordFileBack(FileManager& fileManager, const std::string& file, const std::string& directory,
                       std::string_view name) {
    try {
        fileManager.moveItem(file, joinedPath(directory, name));
    } catch (const FileSystemFailure& failure) {
        if (failure.code() != EEXIST) throw;
        fileManager.moveItem(file, joinedPath(directory, justBefore(name)));
    }
}

}  // namespace brindle
