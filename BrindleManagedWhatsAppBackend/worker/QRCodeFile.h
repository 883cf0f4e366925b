#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "system/FileManager.h"

namespace brindle {

/// The file that shows the page's code to scan to outside readers: there while the page shows one.
class QRCodeFile {
  public:
    /// `fileManager` outlives it.
    QRCodeFile(FileManager& fileManager, std::string path)
        : fileManager_(fileManager), path_(std::move(path)) {}

    /// Whether the page shows a code, as the last look at it found.
    bool exists() const { return fileManager_.fileExists(path_); }
    /// Shows that picture, the bytes of a PNG file. Throws FileSystemFailure.
    void write(std::string_view picture) const {
        fileManager_.writeFileAtomically(path_, picture, Durability::process);
    }
    /// Shows no code any more; a file that cannot be removed stays.
    void removeIfPresent() const { fileManager_.removeIfPresent(path_); }

  private:
    FileManager& fileManager_;
    std::string path_;
};

}  // namespace brindle
