#include "system/Paths.h"

#include <errno.h>

#include <filesystem>
#include <system_error>

namespace brindle {

std::string standardizedPath(std::string_view path) {
    std::error_code error;
    std::filesystem::path absolute(path);
    if (absolute.is_relative()) {
        const auto current = std::filesystem::current_path(error);
        absolute = (error ? std::filesystem::path("/") : current) / absolute;
    }
    std::string text = absolute.lexically_normal().string();
    // POSIX leaves the meaning of exactly two leading slashes open; here it is the root.
    text.erase(0, text.find_first_not_of('/') == std::string::npos ? text.size() - 1
                                                                   : text.find_first_not_of('/') - 1);
    while (text.size() > 1 && text.back() == '/') text.pop_back();
    return text;
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
    std::error_code error;
    auto executable = std::filesystem::read_symlink("/proc/self/exe", error).string();
    if (error || executable.empty()) return bundle;
    // A program replaced on disk while it runs is still reachable at its old place.
    constexpr std::string_view replaced_suffix = " (deleted)";
    if (executable.ends_with(replaced_suffix) && !std::filesystem::exists(executable, error)) {
        executable.resize(executable.size() - replaced_suffix.size());
    }
    const auto directory = std::filesystem::path(executable).parent_path();
    bundle.executablePath = std::move(executable);
    if (std::filesystem::is_directory(directory / "Resources", error)) {
        bundle.resourceDirectory = (directory / "Resources").string();
    }
    return bundle;
}

}  // namespace brindle
