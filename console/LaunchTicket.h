#pragma once

#include <chrono>
#include <string>

#include "system/Descriptor.h"
#include "system/Environment.h"

namespace brindle::console {

/// What proves to a helper that its parent started it: a random token and a file that holds it, in a private
/// directory, which also has room for a data directory of the session's own. All of it is gone with the
/// object; what a console that was killed has left goes with a later one.
class LaunchTicket {
  public:
    /// How long a directory that nobody uses is left alone: it may belong to a console that is just starting.
    static constexpr std::chrono::hours leftover_age{24};

    /// Also removes what is left of this user's earlier tickets. Throws FileSystemFailure.
    LaunchTicket();
    ~LaunchTicket();
    LaunchTicket(const LaunchTicket&) = delete;
    LaunchTicket& operator=(const LaunchTicket&) = delete;

    const std::string& file() const { return file_; }
    const std::string& token() const { return token_; }
    /// Where a session can have its data; not made yet.
    std::string dataDirectory() const;
    /// Sets the two variables by which the helper finds the token.
    void addTo(Environment& environment) const;

  private:
    void holdDirectory();

    std::string directory_;
    /// Tells later consoles that the directory is in use.
    Descriptor lock_;
    std::string file_;
    std::string token_;
};

}  // namespace brindle::console
