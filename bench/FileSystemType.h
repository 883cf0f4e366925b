#pragma once

#include <string>
#include <string_view>

namespace brindle::bench {

/// The type of the file system on which an absolute path lies, as the system calls it ("tmpfs", "ext4"), from
/// the text of /proc/self/mountinfo (Linux).
std::string fileSystemOf(const std::string& path, std::string_view mountInfo);

}  // namespace brindle::bench
