#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>
#include <system_error>

#include "fuzz/Promises.h"

namespace brindle::fuzz {

/// A private directory under $TMPDIR or /tmp that disappears with the object. scripts/fuzz names a place in
/// memory.
class ScratchDirectory {
  public:
    ScratchDirectory() {
        std::string name = (std::filesystem::temp_directory_path() / "brindle-fuzz-XXXXXX").string();
        require(::mkdtemp(name.data()) != nullptr, "there is room for a directory");
        path_ = name;
    }
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;
    ~ScratchDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

}  // namespace brindle::fuzz
