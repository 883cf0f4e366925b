#include "exchange/RecordFiles.h"

#include <errno.h>

#include "system/FileSystemFailure.h"
#include "system/Paths.h"
#include "text/Identifier.h"

namespace brindle {

bool isRecordFileName(std::string_view name) {
    return name.ends_with(record_file_extension);
}

std::string moveRecordFile(FileManager& fileManager, std::string_view name, const std::string& fromDirectory,
                           const std::string& toDirectory) {
    const auto file = joinedPath(fromDirectory, name);
    std::string filedAs(name);
    try {
        fileManager.moveItem(file, joinedPath(toDirectory, filedAs));
    } catch (const FileSystemFailure& failure) {
        if (failure.code() != EEXIST) throw;
        filedAs = randomIdentifier().append("-").append(name);
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
        // A hyphen comes before the full stop of the extension.
        std::string before(name.substr(0, name.size() - record_file_extension.size()));
        before.append("-").append(randomIdentifier()).append(record_file_extension);
        fileManager.moveItem(file, joinedPath(directory, before));
    }
}

}  // namespace brindle
