#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "system/FileManager.h"

namespace brindle::test {

/// Passes everything on. What a test wants otherwise it overrides.
class ForwardingFileManager : public FileManager {
  public:
    explicit ForwardingFileManager(FileManager& next) : next_(next) {}

    void createDirectory(const std::string& path) override { next_.createDirectory(path); }
    void makePrivate(const std::string& directory) override { next_.makePrivate(directory); }
    void requireAccess(const std::string& directory) override { next_.requireAccess(directory); }
    DirectoryListing listDirectory(const std::string& directory) override {
        return next_.listDirectory(directory);
    }
    std::unique_ptr<DirectoryReader> readDirectory(const std::string& directory) override {
        return next_.readDirectory(directory);
    }
    std::uintmax_t fileSystemBytes(const std::string& path) override { return next_.fileSystemBytes(path); }
    bool fileExists(const std::string& path) override { return next_.fileExists(path); }
    bool isExecutableFile(const std::string& path) override { return next_.isExecutableFile(path); }
    std::optional<FileAttributes> attributes(const std::string& path) override {
        return next_.attributes(path);
    }
    std::string readLink(const std::string& path) override { return next_.readLink(path); }
    std::string readFile(const std::string& path) override { return next_.readFile(path); }
    void writeFileAtomically(const std::string& path, std::string_view bytes,
                             Durability durability) override {
        next_.writeFileAtomically(path, bytes, durability);
    }
    void moveItem(const std::string& from, const std::string& to) override { next_.moveItem(from, to); }
    Descriptor lockDirectory(const std::string& path) override { return next_.lockDirectory(path); }
    void removeItem(const std::string& path) override { next_.removeItem(path); }

  private:
    FileManager& next_;
};

}  // namespace brindle::test
