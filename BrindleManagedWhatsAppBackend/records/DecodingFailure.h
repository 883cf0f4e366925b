#pragma once

#include <string>
#include <string_view>

#include "text/Failure.h"

namespace brindle {

/// A document could not be turned into a record.
class DecodingFailure : public Failure {
  public:
    enum class Kind { typeMismatch, missingValue, missingKey, malformedData };

    /// `problem` goes into the description: what was met where something else is needed, as the end of a
    /// sentence that begins with "because" ("a required value is missing"). `path` names the place in the
    /// document ("startListening._0.scope", empty for the whole of it); `detail` is for developers and is not
    /// part of the description.
    DecodingFailure(Kind kind, std::string_view problem, std::string_view path, std::string detail);

    Kind kind() const { return kind_; }
    const std::string& detail() const { return detail_; }

  private:
    Kind kind_;
    std::string detail_;
};

}  // namespace brindle
