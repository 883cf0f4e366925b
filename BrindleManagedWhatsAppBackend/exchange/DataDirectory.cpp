#include "exchange/DataDirectory.h"

#include <errno.h>
#include <unistd.h>

#include <array>

#include "exchange/EnvironmentKeys.h"
#include "exchange/RecordFiles.h"
#include "system/FileSystemFailure.h"
#include "system/Paths.h"
#include "text/Failure.h"

namespace brindle {
namespace {

constexpr std::string_view default_temporary_directory = "/tmp";
constexpr std::string_view application_component = "Brindle";
constexpr std::string_view bridge_component = "ManagedBridge";
constexpr mode_t private_mode = 0700;
constexpr mode_t writable_by_others = 022;

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

std::string generalTemporaryDirectory(const Environment& environment) {
    return standardizedPath(nonBlankValue(environment, environment_key::temporary_directory)
                                .value_or(std::string(default_temporary_directory)));
}

/// In a directory that users share anybody can take a name first; what lies there must be ours alone before
/// we use it.
void requireOwnDirectory(FileManager& fileManager, const std::string& path) {
    const auto attributes = fileManager.attributes(path);
    if (attributes && attributes->isDirectory && attributes->owner == ::geteuid() &&
        (attributes->permissions & writable_by_others) == 0) {
        return;
    }
    throw FileSystemFailure(
        "use the directory", path,
        "It belongs to another user, is a link or can be written by others; remove it or set " +
            std::string(environment_key::data_directory),
        EPERM);
}

}  // namespace

DataDirectory::DataDirectory(const Environment& environment, FileManager& fileManager,
                             std::string_view platform) {
    if (const auto configured = nonBlankValue(environment, environment_key::data_directory)) {
        path = standardizedPath(*configured);
    } else {
        auto base = privateRuntimeDirectory(environment, fileManager);
        if (!base) base = sharedBase_ = generalTemporaryDirectory(environment);
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

void DataDirectory::create(FileManager& fileManager, const std::string& directory) const {
    fileManager.createDirectory(directory);
    if (!sharedBase_.empty()) requireOwnDirectory(fileManager, directory);
}

void DataDirectory::createRoot(FileManager& fileManager) const {
    // Below a shared directory step by step, so that nothing is ever made inside somebody else's directory.
    for (auto slash = path.find('/', sharedBase_.size() + 1);
         !sharedBase_.empty() && slash != std::string::npos; slash = path.find('/', slash + 1)) {
        create(fileManager, path.substr(0, slash));
    }
    create(fileManager, path);
}

void DataDirectory::createForBackend(FileManager& fileManager) const {
    createRoot(fileManager);
    for (const auto* directory : {&inbound, &outbound, &processed, &rejected, &runtime,
                                  &workerProcessedOutbound, &workerRejectedOutbound}) {
        create(fileManager, *directory);
    }
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
