#include "exchange/RecordFiles.h"

#include <errno.h>

#include "system/FileSystemFailure.h"
#include "system/Paths.h"
#include "text/Identifier.h"

namespace brindle {

bool isRecordFileName(std::string_view name) {
    return name.ends_with(record_file_extension);
}

void moveRecordFile(FileManager& fileManager, std::string_view name, const std::string& fromDirectory,
                    const std::string& toDirectory) {
    const auto file = joinedPath(fromDirectory, name);
    try {
        fileManager.moveItem(file, joinedPath(toDirectory, name));
    } catch (const FileSystemFailure& failure) {
        if (failure.code() != EEXIST) throw;
        fileManager.moveItem(file, joinedPath(toDirectory, randomIdentifier().append("-").append(name)));
    }
}

}  // namespace brindle
