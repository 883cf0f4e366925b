#pragma once

#include <filesystem>
#include <string>

#include "support/Environment.h"
#include "support/TemporaryDirectory.h"

namespace brindle::test {

/// A launch token and the 0600 file that holds it, as the parent application makes them.
class LaunchToken {
  public:
    LaunchToken();

    const std::string& value() const { return value_; }
    const std::filesystem::path& file() const { return file_; }
    /// Sets the two variables by which a helper finds the token and its file.
    void addTo(Environment& environment) const;

  private:
    TemporaryDirectory directory_;
    std::string value_;
    std::filesystem::path file_;
};

}  // namespace brindle::test
