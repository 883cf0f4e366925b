#pragma once

#include <string>
#include <string_view>

namespace brindle {

/// True for an absolute URL (RFC 3986).
bool isAbsoluteUrl(std::string_view text);

/// The URL of a directory on this machine, with a slash at its end.
std::string directoryUrl(const std::string& directory);

/// The part of the web that a page may move within: everything below one registrable domain (or one host that
/// has none), never from https down to http; for files, the page's own directory.
class Site {
  public:
    /// The site of the page at `url`.
    explicit Site(const std::string& url);

    bool contains(const std::string& url) const;

  private:
    std::string scheme_;
    /// The registrable domain of a web address, the directory of a file.
    std::string place_;
};

}  // namespace brindle
