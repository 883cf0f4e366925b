#pragma once

#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>

namespace brindle {

/// The one exception family of the system. `what()` is a description for people: a single sentence without
/// line breaks.
class Failure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// A document could not be turned into a record.
class DecodingFailure : public Failure {
  public:
    enum class Kind { typeMismatch, missingValue, missingKey, malformedData };

    /// `path` names the place in the document ("startListening._0.scope", empty for the whole of it);
    /// `detail` is for developers and is not part of the description.
    DecodingFailure(Kind kind, std::string_view path, std::string detail);

    Kind kind() const { return kind_; }
    const std::string& detail() const { return detail_; }

  private:
    Kind kind_;
    std::string detail_;
};

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

/// Nobody takes our output any more and the process is on its way out; what was being written is given up.
class OutputAbandoned : public Failure {
  public:
    OutputAbandoned() : Failure("The parent has stopped reading and closed its end.") {}
};

/// A sentence for people about any exception.
std::string descriptionOf(const std::exception& error);

}  // namespace brindle
