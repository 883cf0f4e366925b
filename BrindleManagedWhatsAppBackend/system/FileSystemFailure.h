#pragma once

#include <string_view>

#include "text/Failure.h"

namespace brindle {

/// An operation on a file, directory or stream failed; the description names the path and the reason.
class FileSystemFailure : public Failure {
  public:
    /// `action` continues "Cannot ..." ("read", "move"); `code` is an errno value (POSIX).
    FileSystemFailure(std::string_view action, std::string_view path, int code);
    /// For a reason that errno has no word for.
    FileSystemFailure(std::string_view action, std::string_view path, std::string_view reason, int code);

    /// The errno value.
    int code() const { return code_; }

  private:
    int code_;
};

}  // namespace brindle
