#pragma once

#include <errno.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "system/FileManager.h"
#include "system/FileSystemFailure.h"

namespace brindle::fuzz {

/// Files that exist in memory alone, for parts that only read, replace and remove them.
class MemoryFiles final : public FileManager {
  public:
    std::map<std::string, std::string> contents;

    bool fileExists(const std::string& path) override { return contents.contains(path); }
    std::string readFile(const std::string& path) override {
        const auto found = contents.find(path);
        if (found == contents.end()) throw FileSystemFailure("read", path, ENOENT);
        return found->second;
    }
    void writeFileAtomically(const std::string& path, std::string_view bytes, Durability) override {
        contents[path] = bytes;
    }
    void removeItem(const std::string& path) override {
        if (contents.erase(path) == 0) throw FileSystemFailure("remove", path, ENOENT);
    }

    void createDirectory(const std::string&) override {}
    void makePrivate(const std::string&) override {}
    void requireAccess(const std::string&) override {}
    std::unique_ptr<Directory> openDirectory(const std::string& path) override { refuse("list", path); }
    std::unique_ptr<DirectoryWatch> makeDirectoryWatch() override { refuse("watch", "directories"); }
    std::unique_ptr<DirectoryReader> readDirectory(const std::string& path) override { refuse("list", path); }
    std::uintmax_t fileSystemBytes(const std::string& path) override { refuse("measure", path); }
    bool isExecutableFile(const std::string&) override { return false; }
    std::optional<FileAttributes> attributes(const std::string&) override { return std::nullopt; }
    std::string readLink(const std::string& path) override { refuse("follow the link", path); }
    void moveItem(const std::string& from, const std::string&) override { refuse("move", from); }
    Descriptor lockDirectory(const std::string& path) override { refuse("lock", path); }

  private:
    [[noreturn]] static void refuse(std::string_view action, const std::string& path) {
        throw FileSystemFailure(action, path, ENOTSUP);
    }
};

}  // namespace brindle::fuzz
