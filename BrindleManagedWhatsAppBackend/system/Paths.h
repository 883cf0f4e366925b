#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace brindle {

/// `path` made absolute against the current working directory, with "." and ".." resolved in the text alone
/// and without a trailing slash. Symbolic links stay.
std::string standardizedPath(std::string_view path);

/// `directory` + "/" + `component`, with one slash between.
std::string joinedPath(std::string_view directory, std::string_view component);

/// The part after the last slash.
std::string_view lastPathComponent(std::string_view path);

/// Where this program and what belongs to it lie.
struct MainBundle {
    /// The running executable.
    std::optional<std::string> executablePath;
    /// `Resources` beside the executable, when there is one.
    std::optional<std::string> resourceDirectory;
    /// The first element of the command line.
    std::string firstArgument;

    /// The bundle of this process.
    static MainBundle current();
};

}  // namespace brindle
