#pragma once

#include <string>

namespace brindle {

/// The part of the web that a page may move within: everything below one registrable domain (or one host that
/// has none), never from https down to http; for files, the page's own directory.
class PageSite {
  public:
    /// The site of the page at `url`.
    explicit PageSite(const std::string& url);

    bool contains(const std::string& url) const;

  private:
    std::string scheme_;
    /// The registrable domain of a web address, the directory of a file.
    std::string place_;
};

}  // namespace brindle
