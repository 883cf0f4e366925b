#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/ForwardingFileManager.h"

namespace brindle::test {

/// Passes everything on and keeps on record every file that was written.
class RecordingFileManager final : public ForwardingFileManager {
  public:
    struct Write {
        std::string path;
        std::string content;
        Durability durability;
    };

    explicit RecordingFileManager(FileManager& next) : ForwardingFileManager(next) {}

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

    void writeFileAtomically(const std::string& path, std::string_view bytes,
                             Durability durability) override {
        ForwardingFileManager::writeFileAtomically(path, bytes, durability);
        writes_.push_back({.path = path, .content = std::string(bytes), .durability = durability});
    }

  private:
    std::vector<Write> writes_;
};

}  // namespace brindle::test
