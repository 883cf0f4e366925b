#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "system/Environment.h"
#include "system/FileManager.h"

namespace brindle {

/// The directory through which backend and worker exchange records, and every path in it. Both roles compute
/// it from the same environment.
struct DataDirectory {
    /// Finds the directory: `BRINDLE_MANAGED_BRIDGE_DATA_DIR`, else a place of the user's own for `platform`.
    /// Touches nothing.
    DataDirectory(const Environment& environment, FileManager& fileManager, std::string_view platform);

    /// Throws FileSystemFailure, with EPERM, when another user could change what lies there or where it lies;
    /// what is not there yet is no reason to. Makes nothing.
    void requireSafe(FileManager& fileManager) const;
    /// Creates the data directory itself, and what leads to it. Throws FileSystemFailure; before anything was
    /// made, with EPERM, when another user could change what lies there or where it lies.
    void createRoot(FileManager& fileManager) const;
    /// Creates what the backend needs, in order. Throws the first failure, as createRoot() does.
    void createForBackend(FileManager& fileManager) const;
    /// Creates what the worker needs, in order. Throws the first failure, as createRoot() does.
    void createForWorker(FileManager& fileManager) const;

    /// The file of the record with that message identifier: `directory`/`messageId`.json.
    static std::string recordFile(std::string_view directory, std::string_view messageId);

    std::string path;
    std::string inbound;
    std::string outbound;
    std::string processed;
    std::string rejected;
    std::string runtime;
    std::string runtimeStatusFile;
    std::string workerStatusFile;
    std::string workerControlFile;
    std::string workerQRCodeFile;
    std::string workerPIDFile;
    std::string freshLinkRequestFile;
    std::string workerProcessedOutbound;
    std::string workerRejectedOutbound;

  private:
    std::string baseBelowSharedDirectory(const Environment& environment);
    std::vector<std::string> directoriesToRoot() const;
    /// In the order in which they are made.
    std::array<const std::string*, 7> folders() const;
    void requireSafeWay(FileManager& fileManager) const;
    void requireOwn(FileManager& fileManager, const std::string& directory) const;
    void create(FileManager& fileManager, const std::string& directory) const;

    /// Not empty when the directory lies in a temporary directory that other users share.
    std::string sharedBase_;
};

}  // namespace brindle
