#pragma once

#include <string>

#include "system/Descriptor.h"
#include "system/DirectoryWatch.h"

namespace brindle {

/// News from the real file system, by inotify (Linux). Network file systems tell only of what this machine
/// does.
class InotifyWatch final : public DirectoryWatch {
  public:
    /// Throws FileSystemFailure when the system has no more of them to give.
    InotifyWatch();

    bool follow(const std::string& path) override;
    int descriptor() const override { return descriptor_.get(); }
    DirectoryNews takeNews() override;

  private:
    Descriptor descriptor_;
    /// The number by which the system calls the directory that is watched; none below 0.
    int directory_ = -1;
};

}  // namespace brindle
