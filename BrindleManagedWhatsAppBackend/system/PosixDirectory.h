#pragma once

#include <string>

#include "system/Descriptor.h"
#include "system/Directory.h"

namespace brindle {

/// A directory of the real file system; takes one descriptor.
class PosixDirectory final : public Directory {
  public:
    explicit PosixDirectory(const std::string& path);

    FileAttributes attributes() override;
    DirectoryListing list() override;
    std::optional<FileAttributes> attributesOf(const std::string& name) override;
    FileAttributes readFile(const DirectoryEntry& entry, std::string& content) override;
    void moveItem(const std::string& name, const std::string& to) override;

  private:
    std::string path_;
    Descriptor descriptor_;
};

}  // namespace brindle
