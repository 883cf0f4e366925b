#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "system/FileManager.h"

namespace brindle::test {

/// Passes everything on and keeps on record every file that was written.
class RecordingFileManager final : public FileManager {
  public:
    struct Write {
        std::string path;
        std::string content;
        Durability durability;
    };

    explicit RecordingFileManager(FileManager& next) : next_(next) {}

    /// What was written, in order; writes that failed left out.
    const std::vector<Write>& writes() const { return writes_; }
    /// What was written to one file, in order.
    std::vector<std::string> contentsOf(const std::string& path) const {
        std::vector<std::string> contents;
        for (const auto& write : writes_) {
            if (write.path == path) contents.push_back(write.content);
        }
        return contents;
    }
    void forget() { writes_.clear(); }

    void createDirectory(const std::string& path) override { next_.createDirectory(path); }
    std::vector<std::string> visibleEntries(const std::string& directory) override {
        return next_.visibleEntries(directory);
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
    std::string readFile(const std::string& path) override { return next_.readFile(path); }
    void writeFileAtomically(const std::string& path, std::string_view bytes,
                             Durability durability) override {
        next_.writeFileAtomically(path, bytes, durability);
        writes_.push_back({.path = path, .content = std::string(bytes), .durability = durability});
    }
    void moveItem(const std::string& from, const std::string& to) override { next_.moveItem(from, to); }
    Descriptor lockDirectory(const std::string& path) override { return next_.lockDirectory(path); }
    void removeItem(const std::string& path) override { next_.removeItem(path); }

  private:
    FileManager& next_;
    std::vector<Write> writes_;
};

}  // namespace brindle::test
