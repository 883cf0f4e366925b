#include "support/Users.h"

#include <unistd.h>

#include "support/Waiting.h"

namespace brindle::test {

bool isRoot() {
    return ::geteuid() == 0;
}

bool isReachableForEverybody(const std::filesystem::path& directory) {
    using std::filesystem::perms;
    const auto isOpen =
        (std::filesystem::status(directory).permissions() & perms::others_exec) != perms::none;
    return isOpen && (!directory.has_relative_path() || isReachableForEverybody(directory.parent_path()));
}

void giveTo(uid_t user, const std::filesystem::path& path) {
    if (::lchown(path.c_str(), user, static_cast<gid_t>(-1)) != 0) {
        throw TestFailure("cannot chown " + path.string());
    }
}

}  // namespace brindle::test
