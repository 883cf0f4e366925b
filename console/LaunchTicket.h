#pragma once

#include <string>

#include "system/Environment.h"

namespace brindle::console {

/// What proves to a helper that its parent started it: a random token and a file that holds it, in a private
/// directory. Both are gone with the object.
class LaunchTicket {
  public:
    /// Throws FileSystemFailure.
    LaunchTicket();
    ~LaunchTicket();
    LaunchTicket(const LaunchTicket&) = delete;
    LaunchTicket& operator=(const LaunchTicket&) = delete;

    const std::string& file() const { return file_; }
    /// Sets the two variables by which the helper finds the token.
    void addTo(Environment& environment) const;

  private:
    std::string directory_;
    std::string file_;
    std::string token_;
};

}  // namespace brindle::console
