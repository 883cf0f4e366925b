#include "system/Paths.h"

#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>
#include <utility>

namespace brindle {
namespace {

std::string currentDirectory() {
    const std::unique_ptr<char, decltype(&::free)> directory(::getcwd(nullptr, 0), &::free);
    return directory ? directory.get() : "/";
}

/// What a symbolic link holds; empty when it cannot be told.
std::string linkTarget(const char* link) {
    std::array<char, PATH_MAX> target{};
    const auto length = ::readlink(link, target.data(), target.size());
    return length < 0 ? std::string() : std::string(target.data(), static_cast<std::size_t>(length));
}

}  // namespace

// Not std::filesystem, with which every start would have to prepare all that the C++ library knows of
// languages.
std::string standardizedPath(std::string_view path) {
    const auto absolute = path.starts_with('/') ? std::string(path) : joinedPath(currentDirectory(), path);
    std::string result;
    for (std::string_view rest = absolute; !rest.empty();) {
        const auto component = rest.substr(0, rest.find('/'));
        rest.remove_prefix(std::min(component.size() + 1, rest.size()));
        if (component == "..") {
            result.erase(std::min(result.rfind('/'), result.size()));
        } else if (!component.empty() && component != ".") {
            result.append("/").append(component);
        }
    }
    return result.empty() ? "/" : result;
}

std::string joinedPath(std::string_view directory, std::string_view component) {
    std::string path(directory);
    if (path.empty() || path.back() != '/') path += '/';
    return path.append(component);
}

std::string_view lastPathComponent(std::string_view path) {
    const auto slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

MainBundle MainBundle::current() {
    MainBundle bundle;
    if (program_invocation_name != nullptr) bundle.firstArgument = program_invocation_name;
    auto executable = linkTarget("/proc/self/exe");
    if (executable.empty()) return bundle;
    // A program replaced on disk while it runs is still reachable at its old place.
    constexpr std::string_view replaced_suffix = " (deleted)";
    struct stat status {};
    if (executable.ends_with(replaced_suffix) && ::stat(executable.c_str(), &status) != 0) {
        executable.resize(executable.size() - replaced_suffix.size());
    }
    auto resources = joinedPath(executable.substr(0, executable.rfind('/')), "Resources");
    bundle.executablePath = std::move(executable);
    if (::stat(resources.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
        bundle.resourceDirectory = std::move(resources);
    }
    return bundle;
}

}  // namespace brindle
