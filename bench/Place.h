#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

namespace brindle::bench {

/// Where data directories are made, and on what.
struct Place {
    std::filesystem::path directory;
    /// As the system calls it: "tmpfs", "ext4".
    std::string fileSystem;
};

/// The place at a directory, which is made when it is missing. Throws std::filesystem::filesystem_error.
Place placeAt(const std::filesystem::path& directory);

/// A fresh data directory in a place; it goes with the object.
class DataDirectory {
  public:
    explicit DataDirectory(const Place& place);
    ~DataDirectory();
    DataDirectory(const DataDirectory&) = delete;
    DataDirectory& operator=(const DataDirectory&) = delete;

    /// Not made yet.
    std::filesystem::path path() const { return scratch_ / "data"; }
    /// Makes it and all directories in it.
    void make() const;
    /// Puts that many records of one chat into "inbound", named 00000000.json and following after `prefix`,
    /// and has the system write down what it still holds back.
    void fill(std::size_t records, const std::string& chat, const std::string& prefix = "") const;
    std::size_t entriesIn(const char* name) const;

  private:
    std::filesystem::path scratch_;
};

/// A record of that chat, as a worker leaves it.
std::string recordText(const std::string& messageId, const std::string& chat);

}  // namespace brindle::bench
