#pragma once

#include <optional>
#include <string>
#include <vector>

#include "system/FileManager.h"

namespace brindle {

/// One thing that the system passes on the way to a path, or meets at its end.
struct PathStep {
    /// Without links: everything above is a folder.
    std::string path;
    FileAttributes attributes;
};

/// Every step that the system takes from the folder `start` along `path`, which is absolute or relative to
/// `start`, in its order: `start` itself, the folders, the links and the steps to which these lead. Ends
/// before the first one that does not exist. `start` leads through no link. Throws FileSystemFailure, with
/// ELOOP when there are more links than the system follows.
std::vector<PathStep> stepsAlong(const std::string& path, FileManager& fileManager,
                                 const std::string& start = "/");

/// Whether the group of a file or folder counts as somebody else.
enum class PrimaryGroup { isTrusted, isNotTrusted };

/// Whether the permissions let nobody write there but the owner and, when that one is trusted, this user's
/// primary group.
bool isClosedToOthers(const FileAttributes& attributes, PrimaryGroup primaryGroup);

/// Whether it is this user's.
bool isOwn(const FileAttributes& attributes);

/// The first step that another user owns, or in which another user could replace the next one. Root, who can
/// do everything anyway, is nobody else, and in a folder with the sticky bit the owner of the next step
/// counts. Throws FileSystemFailure.
std::optional<std::string> firstStepOfOthers(const std::vector<PathStep>& steps, PrimaryGroup primaryGroup,
                                             FileManager& fileManager);

}  // namespace brindle
