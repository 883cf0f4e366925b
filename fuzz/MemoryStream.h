#pragma once

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include "fuzz/Promises.h"
#include "system/Descriptor.h"

namespace brindle::fuzz {

/// Stands in for a standard stream: a file in memory.
class MemoryStream {
  public:
    /// With that to read.
    explicit MemoryStream(std::string_view content = {}) {
        require(::write(file_.get(), content.data(), content.size()) == static_cast<ssize_t>(content.size()),
                "there is room for a file in memory");
        require(::lseek(file_.get(), 0, SEEK_SET) == 0, "a file in memory can be read from its start");
    }

    int descriptor() const { return file_.get(); }
    /// Everything in it.
    std::string content() const {
        struct stat status {};
        require(::fstat(file_.get(), &status) == 0, "a file in memory has a size");
        std::string content(static_cast<std::size_t>(status.st_size), '\0');
        require(::pread(file_.get(), content.data(), content.size(), 0) == status.st_size,
                "a file in memory can be read");
        return content;
    }

  private:
    Descriptor file_{::memfd_create("stream", MFD_CLOEXEC)};
};

}  // namespace brindle::fuzz
