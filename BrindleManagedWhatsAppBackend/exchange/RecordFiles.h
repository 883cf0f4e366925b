#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "system/FileManager.h"

namespace brindle {

/// The extension of record files; matched exactly.
inline constexpr std::string_view record_file_extension = ".json";

/// Whether a visible file of that name is a record; others are nobody's business here.
bool isRecordFileName(std::string_view name);

/// The records that wait in a directory, in order of their names. When their writer's names ascend, none is
/// there without those that it wrote before, even if it writes meanwhile; what it writes meanwhile may be
/// missing. Throws FileSystemFailure.
std::vector<DirectoryEntry> waitingRecords(Directory& directory);

/// Files a record away: moves it from an open directory to another under its own name or, when that is taken
/// there, under a fresh one with its own, or as much of it as a name has room for, at the end, so that
/// nothing is ever replaced. Answers the name it has got. Throws FileSystemFailure.
std::string moveRecordFile(Directory& fromDirectory, const std::string& name, const std::string& toDirectory);

/// Puts a record that was filed away back into a directory under the name it had or, when that is taken
/// again, under one that comes just before it in the order of names: it is the older of the two. Throws
/// FileSystemFailure.
void putRecordFileBack(FileManager& fileManager, const std::string& file, const std::string& directory,
                       std::string_view name);

}  // namespace brindle
