#include "exchange/DataDirectory.h"

#include <errno.h>
#include <unistd.h>

#include <array>

#include "exchange/EnvironmentKeys.h"
#include "exchange/RecordFiles.h"
#include "system/FileSystemFailure.h"
#include "system/PathSteps.h"
#include "system/Paths.h"
#include "text/Failure.h"
#include "text/Text.h"

namespace brindle {
namespace {

constexpr std::string_view default_temporary_directory = "/tmp";
constexpr std::string_view user_folder_prefix = "brindle-";
constexpr std::string_view application_component = "Brindle";
constexpr std::string_view bridge_component = "ManagedBridge";
constexpr mode_t private_mode = 0700;

/// The user's runtime directory (XDG base directories), when it is there and private.
std::optional<std::string> privateRuntimeDirectory(const Environment& environment, FileManager& fileManager) {
    const auto value = nonBlankValue(environment, environment_key::runtime_directory);
    if (!value || !value->starts_with('/')) return std::nullopt;
    auto directory = standardizedPath(*value);
    try {
        const auto attributes = fileManager.attributes(directory);
        const bool isPrivate = attributes && attributes->isDirectory && attributes->owner == ::geteuid() &&
                               attributes->permissions == private_mode;
        if (!isPrivate) return std::nullopt;
    } catch (const Failure&) {
        return std::nullopt;
    }
    return directory;
}

[[noreturn]] void refuse(const std::string& path, const std::string& reason) {
    throw FileSystemFailure("use the directory", path, reason, EPERM);
}

}  // namespace

DataDirectory::DataDirectory(const Environment& environment, FileManager& fileManager,
                             std::string_view platform) {
    if (const auto configured = nonBlankValue(environment, environment_key::data_directory)) {
        path = standardizedPath(*configured);
    } else {
        auto base = privateRuntimeDirectory(environment, fileManager);
        if (!base) base = baseBelowSharedDirectory(environment);
        path = joinedPath(joinedPath(joinedPath(*base, application_component), bridge_component), platform);
    }
    inbound = joinedPath(path, "inbound");
    outbound = joinedPath(path, "outbound");
    processed = joinedPath(path, "processed");
    rejected = joinedPath(path, "rejected");
    runtime = joinedPath(path, "runtime");
    runtimeStatusFile = joinedPath(runtime, "runtime-status.json");
    workerStatusFile = joinedPath(runtime, "worker-status.json");
    workerControlFile = joinedPath(runtime, "worker-control.json");
    workerQRCodeFile = joinedPath(runtime, "worker-qr.png");
    workerPIDFile = joinedPath(runtime, "worker.pid");
    freshLinkRequestFile = joinedPath(runtime, "fresh-link-request.flag");
    workerProcessedOutbound = joinedPath(runtime, "worker-processed-outbound");
    workerRejectedOutbound = joinedPath(runtime, "worker-rejected-outbound");
}

std::string DataDirectory::baseBelowSharedDirectory(const Environment& environment) {
    if (const auto given = nonBlankValue(environment, environment_key::temporary_directory)) {
        return sharedBase_ = standardizedPath(*given);
    }
    sharedBase_ = default_temporary_directory;
    // A folder for each user, because whoever made a common one would keep all others out.
    return joinedPath(sharedBase_, std::string(user_folder_prefix) + std::to_string(::geteuid()));
}

std::array<const std::string*, 7> DataDirectory::folders() const {
    return {&inbound,
            &outbound,
            &processed,
            &rejected,
            &runtime,
            &workerProcessedOutbound,
            &workerRejectedOutbound};
}

/// Below a shared directory what leads to the data directory has to be ours as well.
std::vector<std::string> DataDirectory::directoriesToRoot() const {
    std::vector<std::string> directories;
    for (auto slash = path.find('/', sharedBase_.size() + 1);
         !sharedBase_.empty() && slash != std::string::npos; slash = path.find('/', slash + 1)) {
        directories.push_back(path.substr(0, slash));
    }
    directories.push_back(path);
    return directories;
}

/// Nobody else may be able to make the path lead elsewhere.
void DataDirectory::requireSafeWay(FileManager& fileManager) const {
    const bool isShared = !sharedBase_.empty();
    const auto steps = stepsAlong(isShared ? sharedBase_ : path, fileManager);
    const auto step = firstStepOfOthers(steps, PrimaryGroup::isTrusted, fileManager);
    if (!step) return;
    refuse(
        path,
        "\"" + singleLine(*step) + "\" belongs to another user, or others may replace what lies in it; let " +
            std::string(isShared ? environment_key::temporary_directory : environment_key::data_directory) +
            " name another place");
}

/// Whoever may write there can speak as the worker, and what a link leads to is not ours to change.
void DataDirectory::requireOwn(FileManager& fileManager, const std::string& directory) const {
    const bool isShared = !sharedBase_.empty();
    // The one that was named may be a link; what it is to lead through is looked at elsewhere.
    const bool mayBeLink = directory == path && !isShared;
    const auto attributes = fileManager.attributes(mayBeLink ? joinedPath(directory, ".") : directory);
    // Anything else in its place fails to become a directory.
    if (!attributes || (!attributes->isDirectory && !attributes->isSymbolicLink)) return;
    const auto group = isShared ? PrimaryGroup::isNotTrusted : PrimaryGroup::isTrusted;
    if (attributes->isDirectory && isOwn(*attributes) && isClosedToOthers(*attributes, group)) return;
    refuse(directory,
           "It belongs to another user, is a link or can be written by others; let it be this user's "
           "alone, remove it or set " +
               std::string(environment_key::data_directory));
}

void DataDirectory::create(FileManager& fileManager, const std::string& directory) const {
    fileManager.createDirectory(directory);
    requireOwn(fileManager, directory);
}

void DataDirectory::requireSafe(FileManager& fileManager) const {
    for (const auto& directory : directoriesToRoot()) requireOwn(fileManager, directory);
    for (const auto* directory : folders()) requireOwn(fileManager, *directory);
    requireSafeWay(fileManager);
}

void DataDirectory::createRoot(FileManager& fileManager) const {
    // Everything that is there already, so that nothing is made inside somebody else's directory.
    requireSafe(fileManager);
    const auto directories = directoriesToRoot();
    // Step by step: between a look and the making another user may have been there.
    for (const auto& directory : directories) create(fileManager, directory);
    requireSafeWay(fileManager);
}

void DataDirectory::createForBackend(FileManager& fileManager) const {
    createRoot(fileManager);
    for (const auto* directory : folders()) create(fileManager, *directory);
}

void DataDirectory::createForWorker(FileManager& fileManager) const {
    createRoot(fileManager);
    create(fileManager, inbound);
    create(fileManager, runtime);
}

std::string DataDirectory::recordFile(std::string_view directory, std::string_view messageId) {
    return joinedPath(directory, messageId).append(record_file_extension);
}

}  // namespace brindle
