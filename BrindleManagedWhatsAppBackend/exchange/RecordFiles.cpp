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

std::vector<std::string> recordsAmong(std::vector<std::string> names) {
    std::erase_if(names, [](const std::string& name) { return !isRecordFileName(name); });
    std::sort(names.begin(), names.end());
    return names;
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

std::vector<std::string> waitingRecords(FileManager& fileManager, const std::string& directory) {
    auto first = fileManager.listDirectory(directory);
    auto names = recordsAmong(std::move(first.visibleEntries));
    if (first.isSnapshot || names.empty()) return names;
    // Whatever was written before the greatest of them was there before the second listing began, which
    // therefore has it.
    const auto greatest = std::move(names.back());
    names = recordsAmong(fileManager.visibleEntries(directory));
    names.erase(std::upper_bound(names.begin(), names.end(), greatest), names.end());
    return names;
}

std::string moveRecordFile(FileManager& fileManager, std::string_view name, const std::string& fromDirectory,
                           const std::string& toDirectory) {
    const auto file = joinedPath(fromDirectory, name);
    std::string filedAs(name);
    try {
        fileManager.moveItem(file, joinedPath(toDirectory, filedAs));
    } catch (const FileSystemFailure& failure) {
        if (failure.code() != EEXIST) throw;
        filedAs = underFreshPrefix(name);
        fileManager.moveItem(file, joinedPath(toDirectory, filedAs));
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
