#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "system/FileManager.h"

namespace brindle::test {

/// Passes on what is done in an open directory. What a test wants otherwise it overrides.
class ForwardingDirectory : public Directory {
  public:
    explicit ForwardingDirectory(std::unique_ptr<Directory> next) : next_(std::move(next)) {}

    FileAttributes attributes() override { return next_->attributes(); }
    DirectoryListing list() override { return next_->list(); }
    std::optional<FileAttributes> attributesOf(const std::string& name) override {
        return next_->attributesOf(name);
    }
    FileAttributes readFile(const DirectoryEntry& entry, std::string& content) override {
        return next_->readFile(entry, content);
    }
    void moveItem(const std::string& name, const std::string& to) override { next_->moveItem(name, to); }

  private:
    std::unique_ptr<Directory> next_;
};

/// Passes everything on. What a test wants otherwise it overrides.
class ForwardingFileManager : public FileManager {
  public:
    explicit ForwardingFileManager(FileManager& next) : next_(next) {}

    void createDirectory(const std::string& path) override { next_.createDirectory(path); }
    void makePrivate(const std::string& directory) override { next_.makePrivate(directory); }
    void requireAccess(const std::string& directory) override { next_.requireAccess(directory); }
    std::unique_ptr<Directory> openDirectory(const std::string& path) override {
        return next_.openDirectory(path);
    }
    std::unique_ptr<DirectoryWatch> makeDirectoryWatch() override { return next_.makeDirectoryWatch(); }
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
