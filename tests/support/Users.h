#pragma once

#include <sys/types.h>

#include <filesystem>

namespace brindle::test {

/// A user that is neither root nor whoever runs the tests ("nobody").
constexpr uid_t another_user = 65534;

/// Whether the tests may do what only root may, such as giving files away.
bool isRoot();
/// Whether every user may pass through a directory and all those above it.
bool isReachableForEverybody(const std::filesystem::path& directory);
/// Makes `user` the owner of what lies at `path` itself, be it a symbolic link; for root only.
void giveTo(uid_t user, const std::filesystem::path& path);

}  // namespace brindle::test
