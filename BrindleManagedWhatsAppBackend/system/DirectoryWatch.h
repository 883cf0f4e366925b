#pragma once

#include <string>
#include <vector>

namespace brindle {

/// What has come into a directory since it was asked last.
struct DirectoryNews {
    /// Names under which something was moved there, or was written to and is closed again. One may stand
    /// there several times.
    std::vector<std::string> names;
    /// There was so much that some names are not told.
    bool isCutOff = false;
};

/// Is told by the system of what comes into one directory. What is only begun to be written is no news.
class DirectoryWatch {
  public:
    virtual ~DirectoryWatch() = default;

    /// Watches the directory that the path leads to now, and no other. Answers whether that is another one
    /// than before: what has happened there until now is no news. Throws FileSystemFailure, and has no effect
    /// then.
    virtual bool follow(const std::string& path) = 0;
    /// Readable while there is news.
    virtual int descriptor() const = 0;
    /// Takes what news there is.
    virtual DirectoryNews takeNews() = 0;
};

}  // namespace brindle
