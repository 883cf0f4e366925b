#pragma once

#include <errno.h>
#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <string>
#include <system_error>

#include "support/Waiting.h"
#include "system/Descriptor.h"

namespace brindle::test {

/// A small file system in memory, mounted for the life of the object.
class SmallFileSystem {
  public:
    SmallFileSystem(const std::filesystem::path& directory, const std::string& limits)
        : directory_(directory) {
        if (mount("tmpfs", directory.c_str(), "tmpfs", MS_NOSUID | MS_NODEV,
                  ("mode=0700," + limits).c_str()) != 0) {
            error_ = errno;
        }
    }
    ~SmallFileSystem() {
        if (isMounted()) umount2(directory_.c_str(), MNT_DETACH);
    }
    SmallFileSystem(const SmallFileSystem&) = delete;
    SmallFileSystem& operator=(const SmallFileSystem&) = delete;

    bool isMounted() const { return error_ == 0; }
    /// Refuses every change from now on, as a system does with a disk that has failed; or no longer does.
    void setReadOnly(bool isReadOnly) const {
        const unsigned long flags = MS_REMOUNT | MS_NOSUID | MS_NODEV | (isReadOnly ? MS_RDONLY : 0);
        // Not while a file is being written.
        waitUntil([&] { return mount("tmpfs", directory_.c_str(), "tmpfs", flags, nullptr) == 0; },
                  "another way to mount the disk");
    }
    /// Takes every free block into a file. A record that is being replaced meanwhile may still give its old
    /// block back.
    void takeFreeSpace(const std::filesystem::path& filler) const {
        const Descriptor file(open(filler.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
        if (!file.isOpen()) throw TestFailure("cannot fill the disk");
        const std::array<char, 4096> block{};
        while (write(file.get(), block.data(), block.size()) > 0) {
        }
    }
    std::string whyNot() const { return std::generic_category().message(error_); }

  private:
    std::filesystem::path directory_;
    int error_ = 0;
};

}  // namespace brindle::test
