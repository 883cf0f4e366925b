#include "support/Users.h"

#include <unistd.h>

#include "support/BackendProcess.h"

namespace brindle::test {

bool isRoot() {
    return ::geteuid() == 0;
}

void giveTo(uid_t user, const std::filesystem::path& path) {
    if (::lchown(path.c_str(), user, static_cast<gid_t>(-1)) != 0) {
        throw TestFailure("cannot chown " + path.string());
    }
}

}  // namespace brindle::test
