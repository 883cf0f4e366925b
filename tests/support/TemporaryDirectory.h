#pragma once

#include <filesystem>

namespace brindle::test {

/// A private directory (mode 0700) under $TMPDIR or /tmp that disappears with the object, also while a
/// process that is just ending still writes there.
class TemporaryDirectory {
  public:
    /// Where it lies.
    enum class Place {
        usual,
        /// In memory, where the system has a place for that: for tests that make thousands of files.
        memory,
    };

    explicit TemporaryDirectory(Place place = Place::usual);
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

}  // namespace brindle::test
